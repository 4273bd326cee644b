#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <map>
#include <sstream>
#include <thread>
#include <type_traits>
#include <vector>

#include "common/Logger.h"
#include "tests/support/ScriptedPeer.h"
#include "tests/support/VirtualSlot.h"
#include "tests/unit/UnitSupport.h"

namespace {

using sr_test::OpenDescriptors;
using sr_test::ReadFile;
using sr_test::TempFolder;
using sr_test::WriteFile;
using testing::MatchesRegex;

static_assert(!std::is_copy_constructible<Logger>::value, "a logger owns its file");
static_assert(!std::is_copy_assignable<Logger>::value, "a logger owns its file");
static_assert(!std::has_virtual_destructor<Logger>::value, "one virtual function only");

const std::string kTime = "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9][0-9][0-9]";

// Lines of a text, their newlines cut off; a last line without one is marked.
std::vector<std::string> LinesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    if (!text.empty() && text.back() != '\n')
        lines.push_back("no newline at the end");
    return lines;
}

// What stands behind the time and its blank.
std::string AfterTime(const std::string& line) {
    EXPECT_THAT(line.substr(0, 12), MatchesRegex(kTime));
    return line.size() > 12 ? line.substr(12) : std::string();
}

/// Standard error, sent to a file for as long as the object lives.
class StderrToFile {
public:
    explicit StderrToFile(const std::string& path) : m_Saved(dup(STDERR_FILENO)) {
        std::fflush(stderr);
        const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        dup2(file, STDERR_FILENO);
        close(file);
    }
    ~StderrToFile() {
        std::fflush(stderr);
        dup2(m_Saved, STDERR_FILENO);
        close(m_Saved);
    }
    StderrToFile(const StderrToFile&) = delete;
    StderrToFile& operator=(const StderrToFile&) = delete;

private:
    int m_Saved;
};

/// Shows the fields, and what reaches the layout.
class SpyLogger : public Logger {
public:
    struct Call {
        FILE* stream;
        LogLevel level;
        std::string format;
    };

    void fWriteLogva(FILE* stream, LogLevel level, const char* format, va_list) override {
        calls.push_back({stream, level, format});
    }

    void WriteVa(void (Logger::*writer)(LogLevel, const char*, va_list),
                 LogLevel level,
                 const char* format,
                 ...) {
        va_list args;
        va_start(args, format);
        (this->*writer)(level, format, args);
        va_end(args);
    }

    using Logger::m_nLevel;
    using Logger::m_pFile;
    using Logger::m_pfnWriteLogva;

    std::vector<Call> calls;
};

class LoggerTest : public testing::Test {
protected:
    void Open(LogLevel level = kLogDebug) { ASSERT_EQ(0, m_Logger.Open(Path(), level, true)); }
    const char* Path() const { return m_Path.c_str(); }
    std::vector<std::string> Written() const { return LinesOf(ReadFile(m_Path)); }

    // The one line there is, behind its time.
    std::string WrittenLine() const {
        const auto lines = Written();
        EXPECT_EQ(1u, lines.size());
        return lines.empty() ? std::string() : AfterTime(lines[0]);
    }

    TempFolder m_Folder;
    const std::string m_Path = m_Folder / "trace.log";
    Logger m_Logger;
};

TEST_F(LoggerTest, LevelsAreSpacedByHundred) {
    EXPECT_EQ(0, kLogFatal);
    EXPECT_EQ(100, kLogAlert);
    EXPECT_EQ(200, kLogCritical);
    EXPECT_EQ(300, kLogError);
    EXPECT_EQ(400, kLogWarning);
    EXPECT_EQ(500, kLogNotice);
    EXPECT_EQ(600, kLogInfo);
    EXPECT_EQ(700, kLogDebug);
}

TEST_F(LoggerTest, LayoutIsItsOnlyVirtualFunction) {
    EXPECT_EQ(0u, sr_test::SlotOf(&Logger::fWriteLogva));
}

TEST_F(LoggerTest, NewLoggerHoldsNothing) {
    SpyLogger logger;
    EXPECT_FALSE(logger.IsOpen());
    EXPECT_EQ(nullptr, logger.m_pFile);
    EXPECT_EQ(0, logger.m_nLevel);
    EXPECT_TRUE(logger.m_pfnWriteLogva == nullptr);
}

struct Label {
    int level;
    const char* text;
};

class LabelTest : public LoggerTest, public testing::WithParamInterface<Label> {};

TEST_P(LabelTest, StandsBetweenTimeAndBar) {
    Open(static_cast<LogLevel>(INT_MAX));
    m_Logger.Write(static_cast<LogLevel>(GetParam().level), "message");
    EXPECT_EQ(std::string(" ") + GetParam().text + "| message", WrittenLine());
}

INSTANTIATE_TEST_SUITE_P(Levels,
                         LabelTest,
                         testing::Values(Label{0, "FATAL "},
                                         Label{100, "ALERT "},
                                         Label{200, "CRIT  "},
                                         Label{300, "ERROR "},
                                         Label{400, "WARN  "},
                                         Label{500, "NOTICE"},
                                         Label{600, "INFO  "},
                                         Label{700, "DEBUG "},
                                         Label{-100, "UNKNOWN"},
                                         Label{-1, "UNKNOWN"},
                                         Label{1, "UNKNOWN"},
                                         Label{250, "UNKNOWN"},
                                         Label{299, "UNKNOWN"},
                                         Label{701, "UNKNOWN"},
                                         Label{800, "UNKNOWN"},
                                         Label{INT_MAX, "UNKNOWN"},
                                         Label{INT_MIN, "UNKNOWN"}),
                         [](const testing::TestParamInfo<Label>& label) {
                             const long long level = label.param.level;
                             return (level < 0 ? "Minus" : "") + std::to_string(std::abs(level));
                         });

TEST_F(LoggerTest, LevelBetweenTwoNamesIsFilteredAsItsNumber) {
    Open(static_cast<LogLevel>(250));
    m_Logger.Write(static_cast<LogLevel>(251), "dropped");
    m_Logger.Write(static_cast<LogLevel>(250), "written");
    EXPECT_EQ(" UNKNOWN| written", WrittenLine());
}

TEST_F(LoggerTest, UnknownLabelMovesTheMessageByOneColumn) {
    Open();
    m_Logger.Write(kLogCritical, "message");
    m_Logger.Write(static_cast<LogLevel>(250), "message");
    const auto lines = Written();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(21u, lines[0].find("message"));
    EXPECT_EQ(22u, lines[1].find("message"));
}

TEST_F(LoggerTest, TracedLineIsCompleteToTheLastByte) {
    Open();
    m_Logger.Write("a/b/File.cpp", 12, kLogInfo, "list of %d from %s", 3, "room");
    EXPECT_THAT(ReadFile(m_Path),
                MatchesRegex(kTime + " INFO  \\| list of 3 from room \\[File\\.cpp:12\\]\n"));
}

TEST_F(LoggerTest, PlainLineHasNoPlace) {
    Open();
    m_Logger.Write(kLogError, "ErrorCode=%d -> %s", -5, "text");
    EXPECT_THAT(ReadFile(m_Path), MatchesRegex(kTime + " ERROR \\| ErrorCode=-5 -> text\n"));
}

// Half an hour off full hours, so that no other clock passes for the local one.
TEST_F(LoggerTest, TimeIsTheLocalWallClockInMilliseconds) {
    setenv("TZ", "XXX-05:30", 1);
    tzset();
    Open();
    const auto now = [] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    const long long before = now();
    m_Logger.Write(kLogInfo, "now");
    const long long after = now();
    const auto lines = Written();
    ASSERT_EQ(1u, lines.size());
    int hour = 0, minute = 0, second = 0, milli = 0;
    ASSERT_EQ(4, std::sscanf(lines[0].c_str(), "%d:%d:%d.%d ", &hour, &minute, &second, &milli));
    constexpr long long kDay = 24 * 3600 * 1000;
    const long long local = ((hour * 60LL + minute) * 60 + second) * 1000 + milli;
    const long long utc = local - (5 * 60 + 30) * 60 * 1000;
    EXPECT_LE(((utc - before) % kDay + kDay) % kDay, after - before) << lines[0];
}

struct Cut {
    const char* path;
    const char* place;
};

TEST_F(LoggerTest, PlaceNamesTheLastComponentOnly) {
    const Cut cuts[] = {{"one/two/three.cpp", "three.cpp"},
                        {"/one.cpp", "one.cpp"},
                        {"File.cpp", "File.cpp"},
                        {"dir\\File.cpp", "dir\\File.cpp"},
                        {"a/dir\\File.cpp", "dir\\File.cpp"},
                        {"noextension", "noextension"},
                        {"a//b", "b"},
                        {"dir/", ""},
                        {"", ""}};
    for (const Cut& cut : cuts) {
        m_Logger.Open(Path(), kLogDebug, false);
        m_Logger.Write(cut.path, 7, kLogInfo, "m");
        EXPECT_EQ(std::string(" INFO  | m [") + cut.place + ":7]", WrittenLine()) << cut.path;
    }
}

TEST_F(LoggerTest, LongestLineNumbersFit) {
    Open();
    m_Logger.Write("f", INT_MIN, kLogInfo, "m");
    m_Logger.Write("f", INT_MAX, kLogInfo, "m");
    m_Logger.Write("f", 0, kLogInfo, "m");
    const auto lines = Written();
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ(" INFO  | m [f:-2147483648]", AfterTime(lines[0]));
    EXPECT_EQ(" INFO  | m [f:2147483647]", AfterTime(lines[1]));
    EXPECT_EQ(" INFO  | m [f:0]", AfterTime(lines[2]));
}

// The place is part of the format, on purpose.
TEST_F(LoggerTest, PercentInAFileNameIsAConversion) {
    Open();
    m_Logger.Write("a%%b.cpp", 1, kLogInfo, "m");
    EXPECT_EQ(" INFO  | m [a%b.cpp:1]", WrittenLine());
}

TEST_F(LoggerTest, ArgumentsAreAppliedToTheMessageInFrontOfThePlace) {
    Open();
    m_Logger.Write("f.cpp", 1, kLogInfo, "%s %5d|%-4s|%c %02x %lld", "t", 42, "ab", 'z', 10u,
                   1LL << 40);
    EXPECT_EQ(" INFO  | t    42|ab  |z 0a 1099511627776 [f.cpp:1]", WrittenLine());
}

TEST_F(LoggerTest, PercentInAnArgumentIsText) {
    Open();
    m_Logger.Write("f.cpp", 1, kLogInfo, "%s", "100%s%n");
    EXPECT_EQ(" INFO  | 100%s%n [f.cpp:1]", WrittenLine());
}

TEST_F(LoggerTest, LongMessageIsWrittenWhole) {
    Open();
    const std::string text(100000, 'x');
    m_Logger.Write("f.cpp", 1, kLogInfo, "%s", text.c_str());
    EXPECT_EQ(" INFO  | " + text + " [f.cpp:1]", WrittenLine());
}

TEST_F(LoggerTest, LongFormatIsWrittenWhole) {
    SpyLogger logger;
    logger.Open(nullptr, kLogDebug, true);
    const std::string format(5000, 'f');
    logger.Write(("dir/" + std::string(3000, 'n')).c_str(), 123, kLogInfo, format.c_str(), 0);
    ASSERT_EQ(1u, logger.calls.size());
    EXPECT_EQ(format + " [" + std::string(3000, 'n') + ":123]", logger.calls[0].format);
}

TEST_F(LoggerTest, EveryLineIsFlushedAtOnce) {
    Open();
    for (size_t count = 1; count <= 3; ++count) {
        m_Logger.Write(kLogInfo, "line");
        EXPECT_EQ(count, Written().size()) << "read while the log is still open";
    }
}

TEST_F(LoggerTest, ThresholdItselfIsWrittenAndWhatIsGreaterIsNot) {
    Open(kLogInfo);
    m_Logger.Write(kLogInfo, "written");
    m_Logger.Write(kLogDebug, "dropped");
    m_Logger.Write(static_cast<LogLevel>(601), "dropped");
    m_Logger.Write("f.cpp", 1, kLogDebug, "dropped");
    EXPECT_EQ(" INFO  | written", WrittenLine());
}

TEST_F(LoggerTest, ThresholdZeroWritesFatalOnly) {
    Open(kLogFatal);
    m_Logger.Write(kLogAlert, "dropped");
    m_Logger.Write(static_cast<LogLevel>(1), "dropped");
    m_Logger.Write(kLogFatal, "written");
    EXPECT_EQ(" FATAL | written", WrittenLine());
}

TEST_F(LoggerTest, ClosedLoggerWritesNothingForAnyLevel) {
    SpyLogger logger;
    for (const int level : {INT_MIN, -1, 0, 100, 250, 300, 700, INT_MAX}) {
        logger.Write(static_cast<LogLevel>(level), "message");
        logger.Write("f.cpp", 1, static_cast<LogLevel>(level), "message");
    }
    logger.Open(nullptr, kLogDebug, true);
    logger.Close();
    logger.Write(kLogFatal, "message");
    logger.Write("f.cpp", 1, kLogFatal, "message");
    EXPECT_TRUE(logger.calls.empty());
}

// Nothing is read of a line that is not written: these pointers point nowhere.
TEST_F(LoggerTest, DroppedLineIsNeitherComposedNorFormatted) {
    const char* nowhere = reinterpret_cast<const char*>(uintptr_t{16});
    m_Logger.Write(nowhere, 1, kLogFatal, "%s", nowhere);
    m_Logger.Write(kLogFatal, "%s", nowhere);
    Open(kLogInfo);
    m_Logger.Write(nowhere, 1, kLogDebug, "%s", nowhere);
    m_Logger.Write(kLogDebug, "%s", nowhere);
    EXPECT_TRUE(Written().empty());
}

TEST_F(LoggerTest, NullPathWritesToStandardError) {
    const std::string captured = m_Folder / "stderr.txt";
    {
        const StderrToFile redirect(captured);
        EXPECT_EQ(0, m_Logger.Open(nullptr, kLogInfo, true));
        EXPECT_TRUE(m_Logger.IsOpen());
        m_Logger.Write("dir/File.cpp", 12, kLogWarning, "message %d", 1);
        m_Logger.Write(kLogInfo, "plain");
        m_Logger.Write(kLogDebug, "dropped");
    }
    EXPECT_THAT(ReadFile(captured),
                MatchesRegex(kTime + " WARN  \\| message 1 \\[File\\.cpp:12\\]\n" + kTime +
                             " INFO  \\| plain\n"));
}

TEST_F(LoggerTest, ClosingTheConsoleLeavesStandardErrorOpen) {
    const std::string captured = m_Folder / "stderr.txt";
    {
        const StderrToFile redirect(captured);
        m_Logger.Open(nullptr, kLogInfo, true);
        m_Logger.Close();
        std::fputs("still there\n", stderr);
    }
    EXPECT_EQ("still there\n", ReadFile(captured));
}

TEST_F(LoggerTest, ConsoleIsNotKeptAsTheFile) {
    SpyLogger logger;
    logger.Open(nullptr, kLogInfo, true);
    EXPECT_EQ(nullptr, logger.m_pFile);
    EXPECT_TRUE(logger.m_pfnWriteLogva == &Logger::ConsoleWriteLogva);
}

TEST_F(LoggerTest, FileWriterIsSetForAFile) {
    SpyLogger logger;
    ASSERT_EQ(0, logger.Open(Path(), kLogInfo, true));
    EXPECT_NE(nullptr, logger.m_pFile);
    EXPECT_TRUE(logger.m_pfnWriteLogva == &Logger::FileWriteLogva);
}

TEST_F(LoggerTest, WritersHandTheirStreamToTheLayout) {
    SpyLogger logger;
    ASSERT_EQ(0, logger.Open(Path(), kLogFatal, true));
    logger.WriteVa(&Logger::ConsoleWriteLogva, kLogDebug, "to console");
    logger.WriteVa(&Logger::FileWriteLogva, kLogInfo, "to file");
    ASSERT_EQ(2u, logger.calls.size()) << "the writers filter nothing";
    EXPECT_EQ(stderr, logger.calls[0].stream);
    EXPECT_EQ(kLogDebug, logger.calls[0].level);
    EXPECT_EQ("to console", logger.calls[0].format);
    EXPECT_EQ(logger.m_pFile, logger.calls[1].stream);
    EXPECT_EQ(kLogInfo, logger.calls[1].level);
    EXPECT_EQ("to file", logger.calls[1].format);
}

TEST_F(LoggerTest, WithoutAppendTheFileIsTruncated) {
    WriteFile(m_Path, "old content\n");
    ASSERT_EQ(0, m_Logger.Open(Path(), kLogInfo, false));
    EXPECT_EQ("", ReadFile(m_Path));
    m_Logger.Write(kLogInfo, "new");
    EXPECT_EQ(" INFO  | new", WrittenLine());
}

TEST_F(LoggerTest, WithAppendTheFileKeepsItsContent) {
    WriteFile(m_Path, "old content\n");
    ASSERT_EQ(0, m_Logger.Open(Path(), kLogInfo, true));
    m_Logger.Write(kLogInfo, "new");
    EXPECT_THAT(ReadFile(m_Path), MatchesRegex("old content\n" + kTime + " INFO  \\| new\n"));
}

TEST_F(LoggerTest, MissingFileIsCreatedInBothModes) {
    ASSERT_EQ(0, m_Logger.Open((m_Folder / "a.log").c_str(), kLogInfo, true));
    EXPECT_EQ(0, access((m_Folder / "a.log").c_str(), F_OK));
    ASSERT_EQ(0, m_Logger.Open((m_Folder / "w.log").c_str(), kLogInfo, false));
    EXPECT_EQ(0, access((m_Folder / "w.log").c_str(), F_OK));
}

TEST_F(LoggerTest, PathIsTakenByteForByte) {
    const std::string path = m_Folder / "gr\xfcn \xff.log";
    ASSERT_EQ(0, m_Logger.Open(path.c_str(), kLogInfo, false));
    EXPECT_EQ(0, access(path.c_str(), F_OK));
}

TEST_F(LoggerTest, UnwritablePathIsReported) {
    EXPECT_EQ(-10, m_Logger.Open((m_Folder / "missing/trace.log").c_str(), kLogInfo, true));
    EXPECT_FALSE(m_Logger.IsOpen());
    EXPECT_EQ(-10, m_Logger.Open((m_Folder / "missing/trace.log").c_str(), kLogInfo, false));
    EXPECT_FALSE(m_Logger.IsOpen());
    EXPECT_EQ(-10, m_Logger.Open(m_Folder.Path().c_str(), kLogInfo, false)) << "a directory";
    EXPECT_EQ(-10, m_Logger.Open("", kLogInfo, true));
}

TEST_F(LoggerTest, FailedOpenClosesTheLogThatWasOpen) {
    Open();
    const int before = OpenDescriptors();
    EXPECT_EQ(-10, m_Logger.Open((m_Folder / "missing/trace.log").c_str(), kLogInfo, true));
    EXPECT_FALSE(m_Logger.IsOpen());
    EXPECT_EQ(before - 1, OpenDescriptors());
    m_Logger.Write(kLogFatal, "dropped");
    EXPECT_TRUE(Written().empty());
}

TEST_F(LoggerTest, FailedOpenClosesTheConsole) {
    const std::string captured = m_Folder / "stderr.txt";
    {
        const StderrToFile redirect(captured);
        m_Logger.Open(nullptr, kLogInfo, true);
        EXPECT_EQ(-10, m_Logger.Open((m_Folder / "missing/x").c_str(), kLogDebug, true));
        m_Logger.Write(kLogFatal, "dropped");
    }
    EXPECT_FALSE(m_Logger.IsOpen());
    EXPECT_EQ("", ReadFile(captured)) << "nothing is reported anywhere else";
}

TEST_F(LoggerTest, EveryOpenReplacesTheThresholdAlsoAFailedOne) {
    SpyLogger logger;
    ASSERT_EQ(0, logger.Open(Path(), kLogInfo, true));
    EXPECT_EQ(kLogInfo, logger.m_nLevel);
    ASSERT_EQ(0, logger.Open(nullptr, kLogError, true));
    EXPECT_EQ(kLogError, logger.m_nLevel);
    ASSERT_EQ(-10, logger.Open((m_Folder / "missing/x").c_str(), kLogNotice, true));
    EXPECT_EQ(kLogNotice, logger.m_nLevel);
}

TEST_F(LoggerTest, OpenSwitchesBetweenFilesAndConsole) {
    const std::string captured = m_Folder / "stderr.txt";
    const std::string second = m_Folder / "second.log";
    const int before = OpenDescriptors();
    {
        const StderrToFile redirect(captured);
        m_Logger.Open(Path(), kLogInfo, true);
        m_Logger.Write(kLogInfo, "one");
        m_Logger.Open(second.c_str(), kLogInfo, true);
        m_Logger.Write(kLogInfo, "two");
        m_Logger.Open(nullptr, kLogInfo, true);
        m_Logger.Write(kLogInfo, "three");
        m_Logger.Open(Path(), kLogInfo, true);
        m_Logger.Write(kLogInfo, "four");
    }
    const auto first = Written();
    ASSERT_EQ(2u, first.size());
    EXPECT_EQ(" INFO  | one", AfterTime(first[0]));
    EXPECT_EQ(" INFO  | four", AfterTime(first[1]));
    EXPECT_THAT(ReadFile(second), MatchesRegex(kTime + " INFO  \\| two\n"));
    EXPECT_THAT(ReadFile(captured), MatchesRegex(kTime + " INFO  \\| three\n"));
    EXPECT_EQ(before + 1, OpenDescriptors()) << "one file is open, the others are closed";
}

TEST_F(LoggerTest, CloseIsHarmlessAtAnyTime) {
    m_Logger.Close();
    EXPECT_FALSE(m_Logger.IsOpen());
    const int before = OpenDescriptors();
    Open();
    EXPECT_TRUE(m_Logger.IsOpen());
    m_Logger.Close();
    m_Logger.Close();
    EXPECT_FALSE(m_Logger.IsOpen());
    EXPECT_EQ(before, OpenDescriptors());
}

TEST_F(LoggerTest, ClosedFieldsAreCleared) {
    SpyLogger logger;
    logger.Open(Path(), kLogInfo, true);
    logger.Close();
    EXPECT_EQ(nullptr, logger.m_pFile);
    EXPECT_TRUE(logger.m_pfnWriteLogva == nullptr);
}

TEST_F(LoggerTest, DestructorClosesTheFile) {
    const int before = OpenDescriptors();
    {
        Logger logger;
        ASSERT_EQ(0, logger.Open(Path(), kLogInfo, true));
        EXPECT_EQ(before + 1, OpenDescriptors());
    }
    EXPECT_EQ(before, OpenDescriptors());
}

TEST_F(LoggerTest, WriteErrorsAreIgnored) {
    if (access("/dev/full", W_OK) != 0)
        GTEST_SKIP() << "no full device";
    ASSERT_EQ(0, m_Logger.Open("/dev/full", kLogInfo, false));
    m_Logger.Write(kLogInfo, "lost");
    EXPECT_TRUE(m_Logger.IsOpen());
}

class ConcurrentLoggerTest : public LoggerTest {
protected:
    static constexpr int kThreads = 4;
    static constexpr int kLines = 250;

    // Lines long enough to need several writes of the stream's buffer.
    static void WriteLines(Logger& logger, int thread) {
        const std::string filling(static_cast<size_t>(thread) * 1500 + 10,
                                  static_cast<char>('a' + thread));
        for (int i = 0; i < kLines; ++i)
            logger.Write("dir/Thread.cpp", thread, kLogInfo, "%d %s end", i, filling.c_str());
    }

    // Every line is whole, and those of one thread stand in its order.
    void ExpectWholeLines(const std::string& text) {
        const auto lines = LinesOf(text);
        ASSERT_EQ(static_cast<size_t>(kThreads * kLines), lines.size());
        std::map<int, int> next;
        for (const std::string& line : lines) {
            const std::string rest = AfterTime(line);
            const size_t colon = rest.rfind(':');
            ASSERT_NE(std::string::npos, colon) << line;
            const int thread = std::atoi(rest.c_str() + colon + 1);
            ASSERT_TRUE(thread >= 0 && thread < kThreads) << line;
            const std::string filling(static_cast<size_t>(thread) * 1500 + 10,
                                      static_cast<char>('a' + thread));
            ASSERT_EQ(" INFO  | " + std::to_string(next[thread]++) + " " + filling +
                          " end [Thread.cpp:" + std::to_string(thread) + "]",
                      rest);
        }
    }

    void WriteFromAllThreads(Logger& logger) {
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i)
            threads.emplace_back([&logger, i] { WriteLines(logger, i); });
        for (std::thread& thread : threads)
            thread.join();
    }
};

TEST_F(ConcurrentLoggerTest, LinesInAFileAreWhole) {
    Open();
    WriteFromAllThreads(m_Logger);
    ExpectWholeLines(ReadFile(m_Path));
}

TEST_F(ConcurrentLoggerTest, LinesOnTheConsoleAreWhole) {
    const std::string captured = m_Folder / "stderr.txt";
    {
        const StderrToFile redirect(captured);
        m_Logger.Open(nullptr, kLogDebug, true);
        WriteFromAllThreads(m_Logger);
    }
    ExpectWholeLines(ReadFile(captured));
}

/// Logs a line about each line, under the logger's own lock.
class ChattyLogger : public Logger {
public:
    void fWriteLogva(FILE* stream, LogLevel level, const char* format, va_list args) override {
        const decltype(m_mutex)::scoped_lock lock(m_mutex);
        if (!m_bNested) {
            m_bNested = true;
            Write(kLogNotice, "a line follows");
            m_bNested = false;
        }
        Logger::fWriteLogva(stream, level, format, args);
    }

private:
    bool m_bNested = false;  // guarded by m_mutex
};

TEST_F(LoggerTest, OverriddenLayoutMayLogItself) {
    ChattyLogger logger;
    ASSERT_EQ(0, logger.Open(Path(), kLogDebug, true));
    logger.Write("File.cpp", 1, kLogInfo, "message %d", 5);
    const auto lines = Written();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(" NOTICE| a line follows", AfterTime(lines[0]));
    EXPECT_EQ(" INFO  | message 5 [File.cpp:1]", AfterTime(lines[1]));
}

TEST_F(LoggerTest, OverriddenLayoutThatLogsIsWholeFromManyThreads) {
    ChattyLogger logger;
    ASSERT_EQ(0, logger.Open(Path(), kLogDebug, true));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&logger] {
            for (int n = 0; n < 100; ++n)
                logger.Write(kLogInfo, "message");
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    const auto lines = Written();
    ASSERT_EQ(800u, lines.size());
    for (size_t i = 0; i < lines.size(); i += 2) {
        ASSERT_EQ(" NOTICE| a line follows", AfterTime(lines[i]));
        ASSERT_EQ(" INFO  | message", AfterTime(lines[i + 1]));
    }
}

TEST_F(LoggerTest, OverriddenLayoutSeesOnlyWhatPassedTheThreshold) {
    SpyLogger logger;
    logger.Open(nullptr, kLogInfo, true);
    logger.Write(kLogDebug, "dropped");
    logger.Write("dir/File.cpp", 9, kLogInfo, "traced");
    logger.Write(kLogAlert, "plain");
    ASSERT_EQ(2u, logger.calls.size());
    EXPECT_EQ("traced [File.cpp:9]", logger.calls[0].format);
    EXPECT_EQ(kLogInfo, logger.calls[0].level);
    EXPECT_EQ("plain", logger.calls[1].format);
    EXPECT_EQ(kLogAlert, logger.calls[1].level);
}

}  // namespace
