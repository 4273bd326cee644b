#include <cerrno>

#include "tests/stub/StubFixture.h"

namespace sr_test {
namespace {

class ConnectTest : public StubTest, public testing::WithParamInterface<bool> {};

TEST_P(ConnectTest, EitherFlagConnectsToTheReceiversPort) {
    ASSERT_EQ(19996, m_Peer.Port());
    EXPECT_EQ(0, m_Stub.Init(m_Peer.Host(), GetParam()));
    ASSERT_TRUE(m_Peer.Accept());
    EXPECT_TRUE(m_Stub.IsConnected());
    EXPECT_EQ(0, m_Stub.GetErrorCode());
    // One port, a dispatcher, three seconds.
    EXPECT_EQ(1, m_Log.Count(kLogDebug, "OpenConnect " + m_Peer.Address() + " 1 0 3 this:"));
    EXPECT_TRUE(m_Log.WaitForLines(kLogDebug, "DispatcherThread begin sock:"));
    EXPECT_TRUE(m_Log.WaitForLines(kLogDebug, "NetworkThread begin sock:"));
}

TEST_P(ConnectTest, ReceiverIsSentNoGreeting) {
    ASSERT_EQ(0, m_Stub.Init(m_Peer.Host(), GetParam()));
    ASSERT_TRUE(m_Peer.Accept());
    EXPECT_EQ("", m_Peer.ReceiveAllWithin(milliseconds(150)));
    ExpectAlive();
}

TEST_P(ConnectTest, RefusedPortGivesZeroAndShowsInTheErrorCode) {
    m_Peer.StopListening();
    EXPECT_EQ(0, m_Stub.Init(m_Peer.Host(), GetParam()));
    EXPECT_TRUE(WaitFor([this] { return m_Stub.GetErrorCode() == -ECONNREFUSED; }));
    EXPECT_TRUE(WaitFor([this] { return !m_Stub.IsConnected(); }));
    // Later requests fail, with what is recorded.
    EXPECT_EQ(-ECONNREFUSED, m_Stub.StartPlayImage(1, 0));
    EXPECT_EQ(-ECONNREFUSED, m_Stub.GetErrorCode());
}

INSTANTIATE_TEST_SUITE_P(Flag, ConnectTest, testing::Bool(), [](const auto& flag) {
    return std::string(flag.param ? "True" : "False");
});

class ReconnectTest : public StubTest {};

TEST_F(ReconnectTest, SecondInitClosesTheFirstConnection) {
    Connect();
    ScriptedPeer other;
    ASSERT_EQ(0, m_Stub.Init(other.Host(), false));
    ASSERT_TRUE(other.Accept());
    EXPECT_TRUE(m_Peer.ClientClosed());
    EXPECT_EQ(7, CallWhile([this] { return m_Stub.StopPlayImage(1); },
                           [&] {
                               EXPECT_EQ(Frame("52 65 63 76 49 50 43 14 00 00 00 01"),
                                         other.Receive(kFrameSize));
                               other.Send(Frame("52 65 63 76 49 50 43 15 00 00 00 07"));
                           }));
}

TEST_F(ReconnectTest, InitConnectsAgainAfterTheReceiverClosed) {
    Connect();
    m_Peer.Close();
    EXPECT_TRUE(WaitFor([this] { return m_Stub.GetErrorCode() == -6528002; }));
    Connect();
    EXPECT_EQ(0, m_Stub.GetErrorCode());
    ExpectAlive();
}

TEST_F(ReconnectTest, RequestDoesNotOutliveItsConnection) {
    Connect();
    ScriptedPeer other;
    const Stopwatch watch;
    EXPECT_EQ(-6528101, CallWhile([this] { return m_Stub.StopPlayImage(1); },
                                  [&] {
                                      EXPECT_EQ(kFrameSize, m_Peer.Receive(kFrameSize).size());
                                      EXPECT_EQ(0, m_Stub.Init(other.Host(), false));
                                      EXPECT_TRUE(other.Accept());
                                  }));
    EXPECT_LT(watch.Elapsed(), seconds(8));
    EXPECT_EQ("", other.ReceiveAllWithin(milliseconds(100)));
}

TEST_F(ReconnectTest, AnswerNobodyAskedForOnTheNextConnectionIsSkipped) {
    Connect();
    {
        std::vector<ScreenSenderInfo> list;
        EXPECT_EQ(-6528101, CallWhile([&] { return m_Stub.GetSenderList(list); },
                                      [this] {
                                          EXPECT_EQ(kFrameSize, m_Peer.Receive(kFrameSize).size());
                                          m_Stub.CloseConnect();
                                      }));
    }
    Connect();
    m_Peer.Send(ListFrame("11", "00 02 00", std::string(128, '\0')));
    EXPECT_TRUE(m_Log.WaitForLines(kLogNotice, "<== NetworkThread got exceptional event 0x11 "));
    ExpectAlive();
}

}  // namespace
}  // namespace sr_test
