#include <gtest/gtest.h>

#include <csignal>

#include "tests/cabi/ReceiverAnswers.h"

namespace sr_test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

/// A process ends in the middle of something: with its own exit code, soon, every time.
class ExitTest : public testing::Test {
protected:
    ExitTest() : m_Script(AllAnswers()) {
        // The request that threads wait in: never answered, but its arrival is notified.
        m_Script.answers[30] = Hex("52 65 63 76 49 50 43 24 00 00 00 01 00 00 00 02 00 00 00 03");
    }

    static constexpr int kTimes = 20;
    static constexpr seconds kLimit = seconds(6);

    void ExpectEnds(const std::string& mode) {
        AnsweringPeer peer(m_Script);
        for (int i = 0; i < kTimes; ++i)
            ASSERT_EQ(ExitedWith(7), RunProgram("cabi_exit", {mode, peer.Address()}, kLimit)) << i;
    }

    /// The signal comes once the process waits for the answer to this request.
    void ExpectEndsOnSignal(const std::string& mode, int code) {
        for (int i = 0; i < kTimes; ++i) {
            AnsweringPeer peer(m_Script);
            ChildProcess child("cabi_exit", {mode, peer.Address()});
            ASSERT_TRUE(peer.AwaitRequest(code, 1));
            ASSERT_TRUE(child.AwaitAsleep());
            child.Signal(SIGTERM);
            ASSERT_EQ(ExitedWith(7), child.Wait(kLimit)) << i;
        }
    }

    AnsweringPeer::Script m_Script;
};

TEST_F(ExitTest, NeverUsed) {
    ExpectEnds("unused");
}

TEST_F(ExitTest, MainReturnsWhileConnected) {
    ExpectEnds("return");
}

TEST_F(ExitTest, MainReturnsRightAfterInit) {
    ExpectEnds("at-once");
}

TEST_F(ExitTest, ExitIsCalledWhileConnected) {
    ExpectEnds("exit");
}

TEST_F(ExitTest, MainReturnsWhileNotificationsStreamIn) {
    m_Script.notifyEvery = milliseconds(1);
    ExpectEnds("stream");
}

TEST_F(ExitTest, AnotherThreadSitsInARequest) {
    ExpectEnds("go");
}

TEST_F(ExitTest, OtherThreadsLoopOverRequests) {
    ExpectEnds("loops");
}

TEST_F(ExitTest, OtherThreadsLoopOverRequestsWhileNotificationsStreamIn) {
    m_Script.notifyEvery = milliseconds(1);
    ExpectEnds("loops");
}

TEST_F(ExitTest, OtherThreadsLoopOverInit) {
    ExpectEnds("init-loops");
}

TEST_F(ExitTest, AnotherThreadSitsInARequestWithoutAConnection) {
    ASSERT_EQ(ExitedWith(7), RunProgram("cabi_exit", {"unconnected-request"}, seconds(9)));
}

TEST_F(ExitTest, TheCallbackCallsExit) {
    m_Script.notifyEvery = milliseconds(5);
    ExpectEnds("inside-callback");
}

TEST_F(ExitTest, TheCallbackCallsExitWhileMainWaitsForAnAnswer) {
    ExpectEnds("inside-callback-in-request");
}

TEST_F(ExitTest, TheCallbackCallsExitWhileOtherThreadsLoopOverRequests) {
    m_Script.notifyEvery = milliseconds(50);
    ExpectEnds("inside-callback-while-loops");
}

TEST_F(ExitTest, ForkedChildrenExitAndLeaveTheConnectionAlone) {
    ExpectEnds("fork");
}

TEST_F(ExitTest, ForkedChildrenExitWhileNotificationsStreamIn) {
    m_Script.notifyEvery = milliseconds(1);
    ExpectEnds("fork");
}

TEST_F(ExitTest, ForkedChildrenExitWhileAnotherThreadLoopsOverRequests) {
    ExpectEnds("fork-loops");
}

TEST_F(ExitTest, CallsAfterTheEndAreTurnedAway) {
    AnsweringPeer peer(m_Script);
    EXPECT_EQ(ExitedWith(7), RunProgram("cabi_ended", {SR_LIBRARY, peer.Address()}, kLimit));
    EXPECT_EQ(1u, peer.Requests().size());
}

TEST_F(ExitTest, SignalHandlerCallsExitWhileIdle) {
    ExpectEnds("signal-idle");
}

TEST_F(ExitTest, SignalHandlerCallsExitWhileNotificationsStreamIn) {
    m_Script.notifyEvery = milliseconds(1);
    ExpectEnds("signal-idle");
}

TEST_F(ExitTest, SignalHandlerCallsExitWhileMainLetsNoSignalThrough) {
    ExpectEnds("signal-elsewhere");
}

TEST_F(ExitTest, SignalHandlerCallsExitWhileMainWaitsForAnAnswer) {
    ExpectEndsOnSignal("signal-in-request", 30);
}

}  // namespace
}  // namespace sr_test
