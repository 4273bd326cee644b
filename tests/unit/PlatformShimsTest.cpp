#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <boost/thread/thread.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "common/PlatformShims.h"
#include "tests/support/ScriptedPeer.h"
#include "tests/unit/UnitSupport.h"

namespace {

using sr_test::OpenDescriptors;
using sr_test::ReadFile;
using sr_test::ScopedLocale;
using sr_test::TempFolder;
using sr_test::WriteFile;

unsigned int WallClockMs() {
    return static_cast<unsigned int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                         std::chrono::system_clock::now().time_since_epoch())
                                         .count());
}

TEST(GetTickCountTest, IsTheWallClockCutTo32Bits) {
    for (int i = 0; i < 100; ++i) {  // spread over the second
        const unsigned int before = WallClockMs();
        const unsigned int ticks = GetTickCount();
        const unsigned int after = WallClockMs();
        EXPECT_LE(ticks - before, after - before);
        usleep(7300);
    }
}

TEST(GetTickCountTest, DifferenceOfTwoReadingsIsTheTimeBetween) {
    const unsigned int first = GetTickCount();
    usleep(1500000);
    const unsigned int passed = GetTickCount() - first;
    EXPECT_GE(passed, 1499u);
    EXPECT_LT(passed, 4000u);
}

class FileShimsTest : public testing::Test {
protected:
    static std::wstring Wide(const std::string& ascii) { return {ascii.begin(), ascii.end()}; }

    TempFolder m_Folder;
};

TEST_F(FileShimsTest, WideOpenWritesAndReads) {
    const std::wstring path = Wide(m_Folder / "plain.txt");
    FILE* file = _wfopen(path.c_str(), L"wb");
    ASSERT_NE(nullptr, file);
    std::fputs("text", file);
    std::fclose(file);
    EXPECT_EQ("text", ReadFile(m_Folder / "plain.txt"));

    file = _wfopen(path.c_str(), L"ab");
    ASSERT_NE(nullptr, file);
    std::fputs("+", file);
    std::fclose(file);
    EXPECT_EQ("text+", ReadFile(m_Folder / "plain.txt"));
}

TEST_F(FileShimsTest, WideOpenConvertsInTheCurrentLocale) {
    const ScopedLocale utf8("C.UTF-8");
    FILE* file = _wfopen((Wide(m_Folder.Path()) + L"/gr\u00fcn\u20ac.txt").c_str(), L"w");
    ASSERT_NE(nullptr, file);
    std::fclose(file);
    EXPECT_EQ(1, file_existsA((m_Folder / "gr\xc3\xbcn\xe2\x82\xac.txt").c_str()));
}

TEST_F(FileShimsTest, WideOpenReturnsWhatTheSystemReturns) {
    errno = 0;
    EXPECT_EQ(nullptr, _wfopen(Wide(m_Folder / "missing").c_str(), L"rb"));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(FileShimsTest, WideOpenOfTooLongAPathFails) {
    EXPECT_EQ(nullptr, _wfopen((L"/" + std::wstring(9000, L'x')).c_str(), L"rb"));
    EXPECT_EQ(nullptr, _wfopen((L"/" + std::wstring(4094, L'x')).c_str(), L"rb"));
}

TEST_F(FileShimsTest, ExistingFileIsFoundAndClosedAgain) {
    WriteFile(m_Folder / "file", "x");
    const int before = OpenDescriptors();
    EXPECT_EQ(1, file_existsA((m_Folder / "file").c_str()));
    EXPECT_EQ(1, file_exists(Wide(m_Folder / "file").c_str()));
    EXPECT_EQ(before, OpenDescriptors());
}

TEST_F(FileShimsTest, ExistenceLeavesTheContentAlone) {
    WriteFile(m_Folder / "file", "content");
    file_existsA((m_Folder / "file").c_str());
    file_exists(Wide(m_Folder / "file").c_str());
    EXPECT_EQ("content", ReadFile(m_Folder / "file"));
}

TEST_F(FileShimsTest, EveryFailureToOpenIsNoFile) {
    WriteFile(m_Folder / "file", "x");
    ASSERT_EQ(0, symlink("nowhere", (m_Folder / "dangling").c_str()));
    for (const std::string& path :
         {m_Folder / "missing", m_Folder / "file/below", m_Folder / "dangling", std::string()}) {
        EXPECT_EQ(0, file_existsA(path.c_str())) << path;
        EXPECT_EQ(0, file_exists(Wide(path).c_str())) << path;
    }
    EXPECT_EQ(-1, access((m_Folder / "missing").c_str(), F_OK)) << "looking must not create it";
}

// Opening a directory for reading succeeds on this platform.
TEST_F(FileShimsTest, DirectoryCounts) {
    FILE* opened = std::fopen(m_Folder.Path().c_str(), "rb");
    const int expected = opened != nullptr ? 1 : 0;
    if (opened != nullptr)
        std::fclose(opened);
    EXPECT_EQ(expected, file_existsA(m_Folder.Path().c_str()));
    EXPECT_EQ(expected, file_exists(Wide(m_Folder.Path()).c_str()));
}

std::string Narrow(_bstr_t& holder) {
    return static_cast<char*>(holder);
}
std::wstring Wide(_bstr_t& holder) {
    return static_cast<wchar_t*>(holder);
}

// A holder in memory that was not zero before, so that a missing terminator shows.
class DirtyHolder {
public:
    template <class Char>
    explicit DirtyHolder(const Char* text) : m_Memory(new unsigned char[sizeof(_bstr_t)]) {
        std::memset(m_Memory.get(), 0x21, sizeof(_bstr_t));
        m_Holder = new (m_Memory.get()) _bstr_t(text);
    }
    ~DirtyHolder() { m_Holder->~_bstr_t(); }
    DirtyHolder(const DirtyHolder&) = delete;
    DirtyHolder& operator=(const DirtyHolder&) = delete;

    std::string Narrow() { return static_cast<char*>(*m_Holder); }
    std::wstring Wide() { return static_cast<wchar_t*>(*m_Holder); }

private:
    std::unique_ptr<unsigned char[]> m_Memory;
    _bstr_t* m_Holder;
};

TEST(BstrTest, LiesInTheObjectItself) {
    EXPECT_EQ(1u + 2051u + 1024u * sizeof(wchar_t), sizeof(_bstr_t));
}

TEST(BstrTest, StoredFormComesBackAsItIs) {
    _bstr_t narrow("any \xff\xfe bytes");
    EXPECT_EQ("any \xff\xfe bytes", Narrow(narrow));
    _bstr_t wide(L"euro \u20ac");
    EXPECT_EQ(L"euro \u20ac", Wide(wide));
}

TEST(BstrTest, ReturnsItsOwnBuffer) {
    const char* text = "text";
    _bstr_t holder(text);
    char* first = holder;
    EXPECT_NE(text, first);
    EXPECT_EQ(first, static_cast<char*>(holder));
    EXPECT_GE(reinterpret_cast<char*>(first), reinterpret_cast<char*>(&holder));
    EXPECT_LT(reinterpret_cast<char*>(first), reinterpret_cast<char*>(&holder + 1));
    const wchar_t* wide = holder;
    EXPECT_GE(reinterpret_cast<const char*>(wide), reinterpret_cast<char*>(&holder));
    EXPECT_LT(reinterpret_cast<const char*>(wide), reinterpret_cast<char*>(&holder + 1));
}

TEST(BstrTest, EmptyTextIsEmptyInBothForms) {
    DirtyHolder narrow("");
    EXPECT_EQ(L"", narrow.Wide());
    EXPECT_EQ("", narrow.Narrow());
    DirtyHolder wide(L"");
    EXPECT_EQ("", wide.Narrow());
    EXPECT_EQ(L"", wide.Wide());
}

TEST(BstrTest, ConvertsPlainText) {
    DirtyHolder narrow("File.cpp:12");
    EXPECT_EQ(L"File.cpp:12", narrow.Wide());
    DirtyHolder wide(L"File.cpp:12");
    EXPECT_EQ("File.cpp:12", wide.Narrow());
}

TEST(BstrTest, ConvertsInTheCurrentLocale) {
    const ScopedLocale utf8("C.UTF-8");
    DirtyHolder narrow("gr\xc3\xbcn \xe2\x82\xac");
    EXPECT_EQ(L"gr\u00fcn \u20ac", narrow.Wide());
    DirtyHolder wide(L"gr\u00fcn \u20ac");
    EXPECT_EQ("gr\xc3\xbcn \xe2\x82\xac", wide.Narrow());
}

TEST(BstrTest, TextThatTheLocaleCannotExpressSaysSo) {
    const ScopedLocale plain("C");
    DirtyHolder holder(L"5 \u20ac");
    EXPECT_EQ("conversion ERROR!", holder.Narrow());
    EXPECT_EQ(L"5 \u20ac", holder.Wide());
}

TEST(BstrTest, TextThatIsInvalidInTheLocaleSaysSo) {
    const ScopedLocale utf8("C.UTF-8");
    DirtyHolder holder("bad \xff\xfe");
    EXPECT_EQ(L"conversion ERROR!", holder.Wide());
    EXPECT_EQ("bad \xff\xfe", holder.Narrow());
}

TEST(BstrTest, ConvertsAnewOnEachCall) {
    _bstr_t holder(L"5 \u20ac");
    {
        const ScopedLocale plain("C");
        EXPECT_EQ("conversion ERROR!", Narrow(holder));
    }
    const ScopedLocale utf8("C.UTF-8");
    EXPECT_EQ("5 \xe2\x82\xac", Narrow(holder));
    static_cast<char*>(holder)[0] = 'x';
    EXPECT_EQ("5 \xe2\x82\xac", Narrow(holder));
}

TEST(BstrTest, CutsALongNarrowText) {
    DirtyHolder fits(std::string(2050, 'n').c_str());
    EXPECT_EQ(std::string(2050, 'n'), fits.Narrow());
    DirtyHolder cut(std::string(2051, 'n').c_str());
    EXPECT_EQ(std::string(2050, 'n'), cut.Narrow());
    DirtyHolder far(std::string(100000, 'n').c_str());
    EXPECT_EQ(std::string(2050, 'n'), far.Narrow());
}

TEST(BstrTest, CutsALongWideText) {
    DirtyHolder fits(std::wstring(1023, L'w').c_str());
    EXPECT_EQ(std::wstring(1023, L'w'), fits.Wide());
    DirtyHolder cut(std::wstring(1024, L'w').c_str());
    EXPECT_EQ(std::wstring(1023, L'w'), cut.Wide());
    DirtyHolder far(std::wstring(100000, L'w').c_str());
    EXPECT_EQ(std::wstring(1023, L'w'), far.Wide());
}

TEST(BstrTest, CutsATextThatOutgrowsTheOtherForm) {
    DirtyHolder narrow(std::string(2050, 'n').c_str());
    EXPECT_EQ(std::wstring(1023, L'n'), narrow.Wide());
    DirtyHolder wide(std::wstring(1023, L'w').c_str());
    EXPECT_EQ(std::string(1023, 'w'), wide.Narrow());
}

// 683 characters of three bytes are 2049; the next one does not fit and leaves no half behind.
TEST(BstrTest, CutsBetweenCharacters) {
    const ScopedLocale utf8("C.UTF-8");
    DirtyHolder holder(std::wstring(1023, L'\u20ac').c_str());
    std::string expected;
    for (int i = 0; i < 683; ++i)
        expected += "\xe2\x82\xac";
    const std::string narrow = holder.Narrow();
    EXPECT_EQ(2049u, narrow.size());
    EXPECT_TRUE(narrow.compare(0, 2049, expected) == 0);
}

TEST(MessagePumpTest, PumpsDoNothing) {
    void (*const pumps[])(int) = {&PeekAllMessage, &PeekSomeMessage};
    for (const auto pump : pumps) {
        errno = ENOTTY;
        pump(0);
        pump(-1);
        EXPECT_EQ(ENOTTY, errno);
    }
}

TEST(ResetThreadPtrTest, JoinsDeletesAndClears) {
    std::atomic<bool> mayEnd(false);
    std::atomic<bool> ended(false);
    boost::thread* thread = new boost::thread([&] {
        while (!mayEnd)
            usleep(1000);
        usleep(20000);
        ended = true;
    });
    mayEnd = true;
    ResetThreadPtr(&thread);
    EXPECT_TRUE(ended);
    EXPECT_EQ(nullptr, thread);
}

TEST(ResetThreadPtrTest, ThreadThatHasEndedIsClearedToo) {
    std::atomic<bool> ended(false);
    boost::thread* thread = new boost::thread([&] { ended = true; });
    ASSERT_TRUE(sr_test::WaitFor([&] { return ended.load(); }));
    ResetThreadPtr(&thread);
    EXPECT_EQ(nullptr, thread);
}

TEST(ResetThreadPtrTest, NullIsLeftAlone) {
    boost::thread* thread = nullptr;
    ResetThreadPtr(&thread);
    EXPECT_EQ(nullptr, thread);
}

}  // namespace
