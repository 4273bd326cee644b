#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "TeskClient/ErrorHandler.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ScriptedPeer.h"
#include "tests/support/VirtualSlot.h"

namespace {

using sr_test::LogCapture;
using sr_test::SlotOf;
using testing::EndsWith;
using testing::MatchesRegex;
using testing::StartsWith;

static_assert(!std::is_copy_constructible<NibErrorHandler>::value,
              "records are copied by CopyError");
static_assert(!std::is_copy_assignable<NibErrorHandler>::value, "records are copied by CopyError");
static_assert(!std::has_virtual_destructor<NibErrorHandler>::value, "it would move the slots");

/// Opens the record to the tests.
class OpenErrors : public NibErrorHandler {
public:
    using NibErrorHandler::BeginStep;
    using NibErrorHandler::CodeOfFailure;
    using NibErrorHandler::KeepFailure;
    using NibErrorHandler::m_ErrMutex;
    using NibErrorHandler::m_Logger;
    using NibErrorHandler::m_nBackupErrCode;
    using NibErrorHandler::m_nBackupErrLine;
    using NibErrorHandler::m_nErrCode;
    using NibErrorHandler::m_nErrLine;
    using NibErrorHandler::m_pLogger;
    using NibErrorHandler::m_strBackupErrArg1;
    using NibErrorHandler::m_strBackupErrArg2;
    using NibErrorHandler::m_strBackupErrFile;
    using NibErrorHandler::m_strBackupErrLine;
    using NibErrorHandler::m_strBackupErrMsg;
    using NibErrorHandler::m_strErrArg1;
    using NibErrorHandler::m_strErrArg2;
    using NibErrorHandler::m_strErrFile;
    using NibErrorHandler::m_strErrFileLine;
    using NibErrorHandler::m_strErrLine;
    using NibErrorHandler::m_strErrMsg;

    std::vector<std::string> Record() const {
        return {std::to_string(m_nErrCode), m_strErrMsg,  m_strErrArg1, m_strErrArg2,
                std::to_string(m_nErrLine), m_strErrFile, m_strErrLine};
    }
    std::vector<std::string> Saved() const {
        return {std::to_string(m_nBackupErrCode),
                m_strBackupErrMsg,
                m_strBackupErrArg1,
                m_strBackupErrArg2,
                std::to_string(m_nBackupErrLine),
                m_strBackupErrFile,
                m_strBackupErrLine};
    }
};

class ErrorHandlerTest : public testing::Test {
protected:
    ErrorHandlerTest() { m_Errors.SetLogger(&m_Log); }

    LogCapture m_Log;
    OpenErrors m_Errors;
};

TEST_F(ErrorHandlerTest, VirtualFunctionsKeepTheirSlots) {
    EXPECT_EQ(0u, SlotOf(&NibErrorHandler::GetErrorMessage));
    EXPECT_EQ(1u, SlotOf(&NibErrorHandler::GetErrorCode));
    EXPECT_EQ(2u, SlotOf(&NibErrorHandler::BackupError));
    EXPECT_EQ(3u, SlotOf(&NibErrorHandler::RestoreError));
    EXPECT_EQ(4u, SlotOf(&NibErrorHandler::CopyError));
    EXPECT_EQ(5u, SlotOf(&NibErrorHandler::GetErrFileLine));
    EXPECT_EQ(6u, SlotOf(&NibErrorHandler::SetLogger));
    EXPECT_EQ(7u, SlotOf(&NibErrorHandler::GetLogger));
}

TEST_F(ErrorHandlerTest, LineTextIsNotVirtual) {
    EXPECT_THROW(SlotOf(&NibErrorHandler::GetErrLineStr), std::invalid_argument);
    EXPECT_THROW(SlotOf(&NibErrorHandler::SetError), std::invalid_argument);
    EXPECT_THROW(SlotOf(&NibErrorHandler::SetErrorAt), std::invalid_argument);
    EXPECT_THROW(SlotOf(&NibErrorHandler::WriteErrLog), std::invalid_argument);
}

TEST_F(ErrorHandlerTest, FieldsStandInTheirOrder) {
    OpenErrors e;
    const void* const fields[] = {
        &e.m_nErrCode,         &e.m_nBackupErrCode,   &e.m_strErrMsg,        &e.m_strErrArg1,
        &e.m_strErrArg2,       &e.m_strBackupErrMsg,  &e.m_strBackupErrArg1, &e.m_strBackupErrArg2,
        &e.m_nErrLine,         &e.m_nBackupErrLine,   &e.m_strErrFile,       &e.m_strErrLine,
        &e.m_strBackupErrFile, &e.m_strBackupErrLine, &e.m_strErrFileLine,   &e.m_pLogger,
        &e.m_Logger,           &e.m_ErrMutex};
    for (size_t i = 1; i < sizeof fields / sizeof *fields; ++i) {
        EXPECT_LT(reinterpret_cast<uintptr_t>(fields[i - 1]),
                  reinterpret_cast<uintptr_t>(fields[i]))
            << i;
    }
}

TEST_F(ErrorHandlerTest, NewObjectReportsNoError) {
    OpenErrors errors;
    EXPECT_EQ(0, errors.GetErrorCode());
    EXPECT_EQ((std::vector<std::string>{"0", "", "", "", "0", "", ""}), errors.Record());
    EXPECT_EQ((std::vector<std::string>{"0", "", "", "", "0", "", ""}), errors.Saved());
    EXPECT_EQ("", errors.m_strErrFileLine);
    EXPECT_STREQ("OK [:0]", errors.GetErrorMessage());
    EXPECT_STREQ(":0", errors.GetErrFileLine());
    EXPECT_STREQ("0", errors.GetErrLineStr());
}

TEST_F(ErrorHandlerTest, OwnLoggerIsTheFirstAndClosed) {
    OpenErrors errors;
    EXPECT_EQ(&errors.m_Logger, errors.GetLogger());
    EXPECT_FALSE(errors.GetLogger()->IsOpen());
}

TEST_F(ErrorHandlerTest, LoggerIsReplacedAndNotOwned) {
    LogCapture other;
    {
        OpenErrors errors;
        errors.SetLogger(&other);
        EXPECT_EQ(&other, errors.GetLogger());
        errors.SetErrorAt(-6528004, "", "", "Site.cpp", 1);
        EXPECT_FALSE(errors.m_Logger.IsOpen());
    }
    EXPECT_TRUE(other.IsOpen());
    EXPECT_EQ(1u, other.Lines().size());
}

TEST_F(ErrorHandlerTest, RecordedErrorReadsWithItsArgumentsAndPlace) {
    EXPECT_EQ(-6528101, m_Errors.SetErrorAt(-6528101, "GetSenderList", "10",
                                            "TeskClient/ProtocolBase.cpp", 302));
    EXPECT_EQ(-6528101, m_Errors.GetErrorCode());
    EXPECT_STREQ(
        "GetSenderList command failed to receive response packet within 10 seconds. "
        "[ProtocolBase.cpp:302]",
        m_Errors.GetErrorMessage());
    EXPECT_STREQ("ProtocolBase.cpp:302", m_Errors.GetErrFileLine());
    EXPECT_STREQ("302", m_Errors.GetErrLineStr());
}

TEST_F(ErrorHandlerTest, EveryFieldOfTheRecordIsFilled) {
    m_Errors.SetErrorAt(-6528001, "host", "80 ", "a/Site.cpp", 42);
    m_Errors.GetErrorMessage();
    EXPECT_EQ((std::vector<std::string>{
                  "-6528001", "No TCP connection could be built to IP:host Port:80  [Site.cpp:42]",
                  "host", "80 ", "42", "Site.cpp", "42"}),
              m_Errors.Record());
    EXPECT_EQ("Site.cpp:42", m_Errors.m_strErrFileLine);
    EXPECT_EQ((std::vector<std::string>{"0", "", "", "", "0", "", ""}), m_Errors.Saved());
}

TEST_F(ErrorHandlerTest, SetErrorNamesItsOwnPlace) {
    m_Errors.SetError(-6528101, "GetSenderList", "10");
    EXPECT_THAT(m_Errors.GetErrorMessage(),
                MatchesRegex("GetSenderList command failed to receive response packet within 10 "
                             "seconds\\. \\[ErrorHandler\\.cpp:[1-9][0-9]*\\]"));
    const int line = m_Errors.m_nErrLine;
    m_Errors.SetError(-6528002, "", "");
    EXPECT_EQ(line, m_Errors.m_nErrLine) << "one fixed line";
}

TEST_F(ErrorHandlerTest, ErrorIsLoggedAsItIsRecorded) {
    m_Errors.SetErrorAt(-6528002, "", "", "dir/Site.cpp", 7);
    const auto lines = m_Log.Lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(kLogError, lines[0].level);
    EXPECT_EQ("ErrorCode=-6528002 -> The connection has been gracefully closed. [Site.cpp:7]",
              lines[0].text);
    EXPECT_EQ("", lines[0].place) << "the line is a plain one; its place is the message's";
}

TEST_F(ErrorHandlerTest, SetErrorIsLoggedToo) {
    m_Errors.SetError(-110, "x", "");
    const auto lines = m_Log.Lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(kLogError, lines[0].level);
    EXPECT_THAT(
        lines[0].text,
        MatchesRegex("ErrorCode=-110 -> Connection timed outx \\[ErrorHandler\\.cpp:[0-9]+\\]"));
    EXPECT_EQ("", lines[0].place);
}

TEST_F(ErrorHandlerTest, PercentInAnArgumentIsTextInTheLog) {
    m_Errors.SetErrorAt(-6527004, "%s%n", "", "Site.cpp", 1);
    ASSERT_EQ(1u, m_Log.Lines().size());
    EXPECT_EQ("ErrorCode=-6527004 -> Failed to init object: %s%n [Site.cpp:1]",
              m_Log.Lines()[0].text);
}

TEST_F(ErrorHandlerTest, ClosedLoggerStillLeavesTheRecord) {
    OpenErrors errors;
    errors.SetErrorAt(-6527004, "m_strHost", "", "Site.cpp", 5);
    EXPECT_EQ(-6527004, errors.GetErrorCode());
    EXPECT_STREQ("Failed to init object: m_strHost [Site.cpp:5]", errors.GetErrorMessage());
}

TEST_F(ErrorHandlerTest, UnlistedCodeIsTheSystemsTextWithTheFirstArgumentGlued) {
    m_Errors.SetErrorAt(-110, "First", "Second", "Site.cpp", 3);
    EXPECT_STREQ("Connection timed outFirst [Site.cpp:3]", m_Errors.GetErrorMessage());
    m_Errors.SetErrorAt(-EBADF, "", "", "Site.cpp", 4);
    EXPECT_STREQ("Bad file descriptor [Site.cpp:4]", m_Errors.GetErrorMessage());
    m_Errors.SetErrorAt(-1, " x", "", "Site.cpp", 5);
    EXPECT_STREQ("Operation not permitted x [Site.cpp:5]", m_Errors.GetErrorMessage());
}

TEST_F(ErrorHandlerTest, LowestCodeIsReportedWithoutOverflow) {
    EXPECT_EQ(INT_MIN, m_Errors.SetErrorAt(INT_MIN, "name", "", "Site.cpp", 3));
    EXPECT_EQ(INT_MIN, m_Errors.GetErrorCode());
    EXPECT_THAT(m_Errors.GetErrorMessage(), StartsWith("Unknown error "));
    EXPECT_THAT(m_Errors.GetErrorMessage(), EndsWith("2147483648name [Site.cpp:3]"));
    EXPECT_EQ(1, m_Log.Count(kLogError, "ErrorCode=-2147483648 -> Unknown error "));
    m_Errors.SetErrorAt(INT_MIN + 1, "", "", "Site.cpp", 4);
    EXPECT_STREQ("Unknown error 2147483647 [Site.cpp:4]", m_Errors.GetErrorMessage());
}

TEST_F(ErrorHandlerTest, PositiveCodeIsSuccess) {
    for (const int code : {0, 1, 6528002, INT_MAX}) {
        m_Errors.SetErrorAt(code, "a", "b", "Site.cpp", 9);
        EXPECT_EQ(code, m_Errors.GetErrorCode());
        EXPECT_STREQ("OK [:9]", m_Errors.GetErrorMessage());
    }
    EXPECT_TRUE(m_Log.Lines().empty());
}

TEST_F(ErrorHandlerTest, CodeZeroKeepsTheFileOfTheErrorBefore) {
    m_Errors.SetErrorAt(-6528002, "", "", "dir/First.cpp", 5);
    EXPECT_EQ(0, m_Errors.SetErrorAt(0, "", "", "dir/Second.cpp", 9));
    EXPECT_EQ(0, m_Errors.GetErrorCode());
    EXPECT_STREQ("OK [First.cpp:9]", m_Errors.GetErrorMessage());
    EXPECT_STREQ("First.cpp:9", m_Errors.GetErrFileLine());
    EXPECT_EQ(1u, m_Log.Lines().size());
}

TEST_F(ErrorHandlerTest, SetErrorOfZeroRecordsButLogsNothing) {
    m_Errors.SetErrorAt(-6528002, "", "", "dir/First.cpp", 5);
    m_Errors.SetError(0, "one", "two");
    EXPECT_EQ(0, m_Errors.GetErrorCode());
    EXPECT_EQ("one", m_Errors.m_strErrArg1);
    EXPECT_EQ("two", m_Errors.m_strErrArg2);
    EXPECT_NE(5, m_Errors.m_nErrLine);
    EXPECT_EQ("First.cpp", m_Errors.m_strErrFile);
    EXPECT_EQ(1u, m_Log.Lines().size());
    EXPECT_THAT(m_Errors.GetErrorMessage(), MatchesRegex("OK \\[First\\.cpp:[1-9][0-9]*\\]"));
}

struct Cut {
    const char* path;
    const char* file;
};

TEST_F(ErrorHandlerTest, PlaceNamesTheLastComponentOfItsFile) {
    const Cut cuts[] = {{"/a/b/c/Site.cpp", "Site.cpp"},
                        {"Site.cpp", "Site.cpp"},
                        {"a\\Site.cpp", "a\\Site.cpp"},
                        {"dir/", ""},
                        {"", ""},
                        {"gr\xc3\xbcn/\xff.cpp", "\xff.cpp"}};
    for (const Cut& cut : cuts) {
        m_Errors.SetErrorAt(-6528002, "", "", cut.path, 1);
        EXPECT_EQ(cut.file, m_Errors.m_strErrFile) << cut.path;
        EXPECT_EQ(std::string(cut.file) + ":1", m_Errors.GetErrFileLine());
    }
}

TEST_F(ErrorHandlerTest, OverlongFileNameIsCut) {
    const std::string file(100000, 'f');
    m_Errors.SetErrorAt(-6528002, "", "", ("dir/" + file).c_str(), 1);
    EXPECT_EQ(std::string(2050, 'f'), m_Errors.m_strErrFile);
}

TEST_F(ErrorHandlerTest, LineIsPlainDecimal) {
    for (const int line : {0, 7, -5, 1234567, INT_MAX, INT_MIN}) {
        m_Errors.SetErrorAt(-6528002, "", "", "Site.cpp", line);
        EXPECT_EQ(std::to_string(line), m_Errors.GetErrLineStr());
        EXPECT_EQ("Site.cpp:" + std::to_string(line), m_Errors.GetErrFileLine());
    }
}

TEST_F(ErrorHandlerTest, MessageIsCutBeforeThePlace) {
    const std::string lead = "Failed to create object: ";
    const std::string fits(1023 - lead.size(), 'x');
    m_Errors.SetErrorAt(-6527001, fits.c_str(), "", "Site.cpp", 1);
    EXPECT_EQ(lead + fits + " [Site.cpp:1]", m_Errors.GetErrorMessage());
    m_Errors.SetErrorAt(-6527001, (fits + "y").c_str(), "", "Site.cpp", 1);
    EXPECT_EQ(lead + fits + " [Site.cpp:1]", m_Errors.GetErrorMessage());
    m_Errors.SetErrorAt(-6527001, std::string(100000, 'x').c_str(), "", "Site.cpp", 1);
    EXPECT_EQ(lead + fits + " [Site.cpp:1]", m_Errors.GetErrorMessage());
}

TEST_F(ErrorHandlerTest, MessageOfTwoLongArgumentsIsCut) {
    const std::string longText(5000, 'z');
    m_Errors.SetErrorAt(-6528101, longText.c_str(), longText.c_str(), "Site.cpp", 1);
    EXPECT_EQ(std::string(1023, 'z') + " [Site.cpp:1]", m_Errors.GetErrorMessage());
    EXPECT_EQ(longText, m_Errors.m_strErrArg1) << "the record itself is whole";
}

TEST_F(ErrorHandlerTest, LongArgumentOfAnUnlistedCodeIsNotOverrun) {
    m_Errors.SetErrorAt(-110, std::string(100000, 'x').c_str(), "", "Site.cpp", 1);
    EXPECT_THAT(m_Errors.GetErrorMessage(), StartsWith("Connection timed outxxx"));
    EXPECT_THAT(m_Errors.GetErrorMessage(), EndsWith("x [Site.cpp:1]"));
    ASSERT_EQ(1u, m_Log.Lines().size());
    EXPECT_THAT(m_Log.Lines()[0].text, StartsWith("ErrorCode=-110 -> Connection timed outxxx"));
}

TEST_F(ErrorHandlerTest, MessageStaysValidUntilTheNextOne) {
    m_Errors.SetErrorAt(-6528002, "", "", "Site.cpp", 1);
    const char* message = m_Errors.GetErrorMessage();
    EXPECT_EQ(m_Errors.m_strErrMsg.c_str(), message);
    m_Errors.GetErrFileLine();
    m_Errors.GetErrLineStr();
    EXPECT_STREQ("The connection has been gracefully closed. [Site.cpp:1]", message);
}

TEST_F(ErrorHandlerTest, RestoreBringsTheFirstErrorBackExactly) {
    m_Errors.SetErrorAt(-6528101, "GetSenderList", "10", "dir/First.cpp", 5);
    const std::string message = m_Errors.GetErrorMessage();
    const auto record = m_Errors.Record();
    m_Errors.BackupError();
    EXPECT_EQ(record, m_Errors.Record()) << "saving changes nothing";
    EXPECT_EQ(record, m_Errors.Saved());

    m_Errors.SetErrorAt(-6528001, "host", "80 ", "dir/Second.cpp", 9);
    EXPECT_EQ(record, m_Errors.Saved());
    m_Errors.RestoreError();
    EXPECT_EQ(record, m_Errors.Record());
    EXPECT_EQ(-6528101, m_Errors.GetErrorCode());
    EXPECT_EQ(message, m_Errors.GetErrorMessage());
    EXPECT_STREQ("First.cpp:5", m_Errors.GetErrFileLine());
}

TEST_F(ErrorHandlerTest, RestoreLogsNothing) {
    m_Errors.SetErrorAt(-6528002, "", "", "Site.cpp", 5);
    m_Errors.BackupError();
    m_Errors.SetErrorAt(0, "", "", "Site.cpp", 6);
    m_Errors.RestoreError();
    EXPECT_EQ(1u, m_Log.Lines().size());
}

TEST_F(ErrorHandlerTest, RestoreTwiceGivesTheSame) {
    m_Errors.SetErrorAt(-6528002, "", "", "Site.cpp", 5);
    m_Errors.BackupError();
    m_Errors.RestoreError();
    m_Errors.SetErrorAt(-110, "", "", "Other.cpp", 6);
    m_Errors.RestoreError();
    EXPECT_STREQ("The connection has been gracefully closed. [Site.cpp:5]",
                 m_Errors.GetErrorMessage());
}

TEST_F(ErrorHandlerTest, RestoreWithoutASavedRecordClears) {
    m_Errors.SetErrorAt(-6528002, "a", "b", "Site.cpp", 5);
    m_Errors.RestoreError();
    EXPECT_EQ((std::vector<std::string>{"0", "", "", "", "0", "", ""}), m_Errors.Record());
    EXPECT_STREQ("OK [:0]", m_Errors.GetErrorMessage());
}

TEST_F(ErrorHandlerTest, CopyTakesTheRecordOnly) {
    LogCapture otherLog;
    OpenErrors other;
    other.SetLogger(&otherLog);
    other.SetErrorAt(-6528004, "x", "y", "Other1.cpp", 1);
    other.BackupError();
    other.SetErrorAt(-6528101, "GetSenderList", "10", "dir/Other2.cpp", 2);
    other.GetErrorMessage();

    m_Errors.SetErrorAt(-6528005, "p", "q", "Mine1.cpp", 3);
    m_Errors.GetErrorMessage();
    m_Errors.BackupError();
    const auto saved = m_Errors.Saved();
    m_Errors.SetErrorAt(-6528006, "r", "s", "Mine2.cpp", 4);

    const auto before = other.Record();
    m_Errors.CopyError(&other);
    EXPECT_EQ(before, m_Errors.Record());
    EXPECT_EQ(before, other.Record());
    EXPECT_EQ(saved, m_Errors.Saved());
    EXPECT_EQ("Mine2.cpp:4", m_Errors.m_strErrFileLine) << "rebuilt on demand, not copied";
    EXPECT_EQ(&m_Log, m_Errors.GetLogger());
    EXPECT_EQ(2u, m_Log.Lines().size()) << "a copy is not an error raised here";
    EXPECT_STREQ(
        "GetSenderList command failed to receive response packet within 10 seconds. [Other2.cpp:2]",
        m_Errors.GetErrorMessage());
    m_Errors.RestoreError();
    EXPECT_EQ(-6528005, m_Errors.GetErrorCode());
}

TEST_F(ErrorHandlerTest, CopyOfItselfChangesNothing) {
    m_Errors.SetErrorAt(-6528101, "a", "b", "Site.cpp", 2);
    const auto record = m_Errors.Record();
    m_Errors.CopyError(&m_Errors);
    EXPECT_EQ(record, m_Errors.Record());
}

class SuccessErrors : public OpenErrors {
public:
    int GetErrorCode() override { return 0; }
};

TEST_F(ErrorHandlerTest, OverriddenCodeDecidesWhatIsLogged) {
    SuccessErrors errors;
    errors.SetLogger(&m_Log);
    errors.SetErrorAt(-6528002, "", "", "Site.cpp", 1);
    EXPECT_TRUE(m_Log.Lines().empty());
    EXPECT_EQ("", errors.m_strErrFile);
}

class OtherWords : public NibErrorHandler {
public:
    int GetErrorCode() override { return -7; }
    const char* GetErrorMessage() override { return "other words"; }
};

TEST_F(ErrorHandlerTest, OverriddenCodeAndMessageAreLogged) {
    OtherWords errors;
    errors.SetLogger(&m_Log);
    errors.SetErrorAt(-6528002, "", "", "Site.cpp", 1);
    ASSERT_EQ(1u, m_Log.Lines().size());
    EXPECT_EQ("ErrorCode=-7 -> other words", m_Log.Lines()[0].text);
}

class OtherPlace : public NibErrorHandler {
public:
    const char* GetErrFileLine() override { return "elsewhere"; }
};

TEST_F(ErrorHandlerTest, OverriddenPlaceStandsInTheMessage) {
    OtherPlace errors;
    errors.SetErrorAt(-6528002, "", "", "Site.cpp", 1);
    EXPECT_STREQ("The connection has been gracefully closed. [elsewhere]",
                 errors.GetErrorMessage());
}

TEST_F(ErrorHandlerTest, WriteErrLogTakesTheFileAndLogsTheRecord) {
    const decltype(m_Errors.m_ErrMutex)::scoped_lock lock(m_Errors.m_ErrMutex);
    m_Errors.m_nErrCode = -6528002;
    m_Errors.m_nErrLine = 12;
    m_Errors.WriteErrLog("dir/Site.cpp");
    EXPECT_EQ("Site.cpp", m_Errors.m_strErrFile);
    EXPECT_EQ(1, m_Log.Count(kLogError,
                             "ErrorCode=-6528002 -> The connection has been gracefully closed. "
                             "[Site.cpp:12]"));
}

TEST_F(ErrorHandlerTest, CodeIsReadWithoutTheLock) {
    m_Errors.SetErrorAt(-6528002, "", "", "Site.cpp", 1);
    m_Errors.m_ErrMutex.lock();
    std::atomic<int> seen(1);
    std::thread reader([&] { seen = m_Errors.GetErrorCode(); });
    EXPECT_TRUE(sr_test::WaitFor([&] { return seen != 1; }));
    m_Errors.m_ErrMutex.unlock();
    reader.join();
    EXPECT_EQ(-6528002, seen);
}

TEST_F(ErrorHandlerTest, RecordIsNeverAMixtureOfTwo) {
    std::atomic<bool> stop(false);
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&, i] {
            const std::string text(i == 0 ? "alpha" : "beta");
            for (int n = 0; n < 300; ++n)
                m_Errors.SetErrorAt(i == 0 ? -6528101 : -6528001, text.c_str(), text.c_str(),
                                    text.c_str(), i);
        });
    }
    std::thread reader([&] {
        while (!stop) {
            m_Errors.GetErrorCode();
            const decltype(m_Errors.m_ErrMutex)::scoped_lock lock(m_Errors.m_ErrMutex);
            const std::string message = m_Errors.GetErrorMessage();
            EXPECT_TRUE(message == "OK [:0]" ||
                        message ==
                            "alpha command failed to receive response packet within alpha "
                            "seconds. [alpha:0]" ||
                        message == "No TCP connection could be built to IP:beta Port:beta [beta:1]")
                << message;
        }
    });
    for (std::thread& thread : threads)
        thread.join();
    stop = true;
    reader.join();
    EXPECT_EQ(300,
              m_Log.Count(kLogError,
                          "ErrorCode=-6528101 -> alpha command failed to receive response packet "
                          "within alpha seconds. [alpha:0]"));
    EXPECT_EQ(300, m_Log.Count(kLogError,
                               "ErrorCode=-6528001 -> No TCP connection could be built to IP:beta "
                               "Port:beta [beta:1]"));
}

TEST_F(ErrorHandlerTest, ObjectsThatCopyFromEachOtherDoNotWaitForEachOther) {
    OpenErrors other;
    std::thread there([&] {
        for (int i = 0; i < 2000; ++i)
            m_Errors.CopyError(&other);
    });
    for (int i = 0; i < 2000; ++i)
        other.CopyError(&m_Errors);
    there.join();
    EXPECT_EQ(0, other.GetErrorCode());
}

TEST_F(ErrorHandlerTest, FailedStepReturnsItsOwnCode) {
    m_Errors.BeginStep();
    m_Errors.SetErrorAt(-6528001, "", "", "Site.cpp", 1);
    std::thread([&] { m_Errors.SetErrorAt(0, "", "", "Other.cpp", 2); }).join();
    EXPECT_EQ(0, m_Errors.GetErrorCode());
    EXPECT_EQ(-6528001, m_Errors.CodeOfFailure(-1));
}

TEST_F(ErrorHandlerTest, StepThatRecordedNothingReturnsTheCurrentCode) {
    m_Errors.SetErrorAt(-6528001, "", "", "Site.cpp", 1);
    m_Errors.BeginStep();
    EXPECT_EQ(-6528001, m_Errors.CodeOfFailure(-5));
}

TEST_F(ErrorHandlerTest, StepThatRecordedNothingReturnsItsResultWhenNoErrorIsCurrent) {
    m_Errors.BeginStep();
    EXPECT_EQ(-5, m_Errors.CodeOfFailure(-5));
    OpenErrors other;
    other.SetErrorAt(-6528004, "", "", "Site.cpp", 3);
    EXPECT_EQ(-5, m_Errors.CodeOfFailure(-5)) << "what another object records is not this one's";
}

TEST_F(ErrorHandlerTest, StepThatKeepsARecordedFailureReturnsIt) {
    m_Errors.BeginStep();
    EXPECT_EQ(-6528002, m_Errors.KeepFailure(-6528002));
    std::thread([&] { m_Errors.SetErrorAt(0, "", "", "Other.cpp", 2); }).join();
    EXPECT_EQ(-6528002, m_Errors.CodeOfFailure(-5));
}

}  // namespace
