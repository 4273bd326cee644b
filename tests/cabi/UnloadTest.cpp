#include <gtest/gtest.h>

#include "tests/cabi/ReceiverAnswers.h"

namespace sr_test {
namespace {

using std::chrono::seconds;

// More than the 1024 keys for thread-specific data that a process has: one left behind at each
// unload would show.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr char kCycles[] = "150";
#else
constexpr char kCycles[] = "1200";
#endif

class UnloadTest : public testing::Test {
protected:
    static void ExpectEnds(const std::string& mode) {
        AnsweringPeer peer(AllAnswers());
        EXPECT_EQ(
            ExitedWith(0),
            RunProgram("cabi_unload", {mode, SR_LIBRARY, kCycles, peer.Address()}, seconds(160)));
    }
};

TEST_F(UnloadTest, NeverUsed) {
    ExpectEnds("unused");
}

TEST_F(UnloadTest, UsedOnTheMainThread) {
    ExpectEnds("main");
}

TEST_F(UnloadTest, UsedOnThreadsThatEndAfterwards) {
    ExpectEnds("worker");
}

}  // namespace
}  // namespace sr_test
