#include <gtest/gtest.h>

#include "tests/cabi/ReceiverAnswers.h"

namespace sr_test {
namespace {

using std::chrono::seconds;

// More than the 1024 keys for thread-specific data that a process has, so that one left behind at
// each unload would show, and less where a cycle takes its time.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr char kManyCycles[] = "150";
constexpr char kFullCycles[] = "100";
#else
constexpr char kManyCycles[] = "1100";
constexpr char kFullCycles[] = "250";
#endif

class UnloadTest : public testing::Test {
protected:
    UnloadTest() : m_Peer(AllAnswers()) {}

    void ExpectEnds(const std::string& thread, const std::string& use, const std::string& cycles) {
        ExpectEnds(thread, use, cycles, m_Peer.Address());
    }

    static void ExpectEnds(const std::string& thread,
                           const std::string& use,
                           const std::string& cycles,
                           const std::string& host) {
        EXPECT_EQ(ExitedWith(0),
                  RunProgram("cabi_unload", {thread, use, SR_LIBRARY, cycles, host}, seconds(150)));
    }

    AnsweringPeer m_Peer;
};

TEST_F(UnloadTest, NeverUsed) {
    ExpectEnds("main", "nothing", kManyCycles);
}

TEST_F(UnloadTest, ConnectedMoreOftenThanThereAreKeys) {
    ExpectEnds("main", "init", kManyCycles);
}

TEST_F(UnloadTest, RefusedMoreOftenThanThereAreKeysOnThreadsThatEndAfterwards) {
    ExpectEnds("worker", "init", kManyCycles, UniqueAddress());
}

TEST_F(UnloadTest, UsedOnTheMainThread) {
    ExpectEnds("main", "everything", kFullCycles);
}

TEST_F(UnloadTest, UsedOnThreadsThatEndAfterwards) {
    ExpectEnds("worker", "everything", kFullCycles);
}

}  // namespace
}  // namespace sr_test
