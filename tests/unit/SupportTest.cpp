// The tests' own tools, where a mistake would let other tests pass.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "tests/support/LogCapture.h"
#include "tests/support/ScriptedPeer.h"

namespace {

using sr_test::LogCapture;
using sr_test::ScriptedPeer;
using sr_test::UniqueAddress;

TEST(SupportTest, AddressesAreUniqueBeyondOneBlock) {
    std::set<std::string> seen;
    for (int i = 0; i < 600; ++i) {
        const std::string address = UniqueAddress();
        EXPECT_TRUE(seen.insert(address).second) << address;
        EXPECT_NE("127.0.0.", address.substr(0, 8));
        const std::string last = address.substr(address.rfind('.') + 1);
        EXPECT_NE("0", last);
        EXPECT_NE("255", last);
    }
}

TEST(SupportTest, AForkedProcessHasAddressesOfItsOwn) {
    const std::string mine = UniqueAddress();
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    const pid_t child = fork();
    if (child == 0) {
        const std::string other = UniqueAddress();
        const ssize_t written = write(ends[1], other.data(), other.size());
        _exit(written == static_cast<ssize_t>(other.size()) ? 0 : 1);
    }
    close(ends[1]);
    char text[64] = {};
    ASSERT_LT(0, read(ends[0], text, sizeof text - 1));
    close(ends[0]);
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    const std::string other = text;
    EXPECT_NE(mine.substr(0, mine.rfind('.')), other.substr(0, other.rfind('.')));
}

TEST(SupportTest, CaptureCutsThePlaceOfATracedLineOnly) {
    LogCapture log;
    log.Write("a/b/File.cpp", 12, kLogInfo, "list [a:1] of %d", 3);
    log.Write(kLogError, "code -> %s", "text [Other.cpp:9]");
    const auto lines = log.Lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(kLogInfo, lines[0].level);
    EXPECT_EQ("list [a:1] of 3", lines[0].text);
    EXPECT_EQ("File.cpp:12", lines[0].place);
    EXPECT_EQ("code -> text [Other.cpp:9]", lines[1].text);
    EXPECT_EQ("", lines[1].place);
    EXPECT_EQ(1, log.Count(kLogInfo, "list"));
    EXPECT_EQ(0, log.Count(kLogDebug, "list"));
    EXPECT_EQ(0, log.Count(kLogInfo, "of 3"));
}

TEST(SupportTest, HexAndPaddingMakeTheBytesThatAreWritten) {
    EXPECT_EQ(std::string("R\0\xff", 3), sr_test::Hex("52 00fF"));
    EXPECT_EQ(std::string("R\0\0", 3), sr_test::Padded("R", 3));
    EXPECT_THROW(sr_test::Hex("5"), std::invalid_argument);
    EXPECT_THROW(sr_test::Hex("zz"), std::invalid_argument);
    EXPECT_THROW(sr_test::Padded("RR", 1), std::invalid_argument);
}

TEST(SupportTest, AcceptEndsWhenNobodyComes) {
    ScriptedPeer peer(UniqueAddress(), 0);
    EXPECT_FALSE(peer.Accept(sr_test::milliseconds(20)));
}

}  // namespace
