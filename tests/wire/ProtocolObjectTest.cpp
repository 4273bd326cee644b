#include <dirent.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

#include "tests/support/VirtualSlot.h"
#include "tests/wire/ProtocolFixture.h"

namespace sr_test {
namespace {

constexpr int kCreateObject = -6527001;

int Threads() {
    DIR* directory = ::opendir("/proc/self/task");
    int count = -2;  // "." and ".."
    while (::readdir(directory) != nullptr)
        ++count;
    ::closedir(directory);
    return count;
}

// ---- Construction ----

class NewObjectTest : public testing::Test {
protected:
    TestProtocol m_P;
};

TEST_F(NewObjectTest, FieldsHaveTheirInitialValues) {
    EXPECT_EQ(nullptr, m_P.m_pThreadGroup);
    EXPECT_EQ(nullptr, m_P.m_pDispatcherThread);
    EXPECT_EQ(nullptr, m_P.m_pCloseThread);
    EXPECT_EQ(-1, m_P.m_Socket.get());
    EXPECT_FALSE(m_P.m_bRunning);
    EXPECT_TRUE(m_P.m_EventQueue.empty());
    EXPECT_EQ(0, m_P.m_nAnsCode);
    EXPECT_EQ("", m_P.m_strCmdPrefix);
    EXPECT_EQ("", m_P.m_strCustCmdPrefix);
    EXPECT_EQ(std::string(1, '\0'), m_P.m_strSendBuf);
    EXPECT_FALSE(m_P.m_bFuncPending);
    EXPECT_EQ(30, m_P.m_nSndRcvTimeout);
    EXPECT_FALSE(m_P.m_bClosing);
    EXPECT_EQ("", m_P.m_strHost);
    EXPECT_TRUE(m_P.m_vecPort.empty());
    EXPECT_FALSE(m_P.m_bNoDispatcher);
    EXPECT_EQ(10, m_P.m_nConnectTimeout);
}

TEST_F(NewObjectTest, LocksAreFree) {
    EXPECT_TRUE(TestProtocol::IsFree(m_P.m_EventMutex));
    EXPECT_TRUE(TestProtocol::IsFree(m_P.m_SendMutex));
    EXPECT_TRUE(TestProtocol::IsFree(m_P.m_ConnMutex));
    EXPECT_TRUE(TestProtocol::IsFree(m_P.m_EventWaitMutex));
    EXPECT_TRUE(TestProtocol::IsFree(m_P.m_AnsWaitMutex));
    EXPECT_TRUE(TestProtocol::IsFree(m_P.m_RecvMutex));
}

TEST_F(NewObjectTest, ErrorRecordIsClear) {
    EXPECT_EQ(0, m_P.GetErrorCode());
    EXPECT_STREQ("OK [:0]", m_P.GetErrorMessage());
}

TEST_F(NewObjectTest, HasNoThreads) {
    const int before = Threads();
    TestProtocol other;
    EXPECT_EQ(before, Threads());
}

/// A derived class that registers nothing.
class BareProtocol : public ProtocolBase {
public:
    using ProtocolBase::m_CmdHandlers;
    using ProtocolBase::m_RecvHandlers;
};

TEST(HandlerTableTest, Every256HandlersAreTheDefault) {
    BareProtocol protocol;
    const ProtocolBase::CmdHandler unknown = &ProtocolBase::OnUnknownCommand;
    for (int code = 0; code < 256; ++code) {
        EXPECT_TRUE(protocol.m_CmdHandlers[code] == unknown) << code;
        char payload[] = "x";
        const ProtocolBase::CmdHandler handler = protocol.m_CmdHandlers[code];
        EXPECT_EQ(-1, (protocol.*handler)(payload)) << code;
    }
    EXPECT_EQ(256u, sizeof protocol.m_CmdHandlers / sizeof protocol.m_CmdHandlers[0]);
}

TEST(HandlerTableTest, Every256ReadersAreTheDefault) {
    BareProtocol protocol;
    const ProtocolBase::RecvHandler unknown = &ProtocolBase::RecvUnknownData;
    for (int code = 0; code < 256; ++code) {
        EXPECT_TRUE(protocol.m_RecvHandlers[code] == unknown) << code;
        std::string payload = "x";
        const ProtocolBase::RecvHandler reader = protocol.m_RecvHandlers[code];
        EXPECT_EQ(1, (protocol.*reader)(payload)) << code;
        EXPECT_EQ("", payload);
    }
    EXPECT_EQ(256u, sizeof protocol.m_RecvHandlers / sizeof protocol.m_RecvHandlers[0]);
}

TEST(SignalTest, ConstructionMakesTheProcessIgnoreBrokenPipes) {
    ASSERT_NE(SIG_ERR, std::signal(SIGPIPE, SIG_DFL));
    BareProtocol protocol;
    struct sigaction action = {};
    ASSERT_EQ(0, ::sigaction(SIGPIPE, nullptr, &action));
    EXPECT_EQ(SIG_IGN, action.sa_handler);
}

// ---- Virtual operations ----

TEST(VirtualTableTest, OperationsStandInTheirSlotsBehindTheErrorHandlersEight) {
    EXPECT_EQ(0u, SlotOf(&ProtocolBase::GetErrorMessage));
    EXPECT_EQ(7u, SlotOf(&ProtocolBase::GetLogger));
    EXPECT_EQ(8u, SlotOf(&ProtocolBase::SetCmdPrefix));
    EXPECT_EQ(9u, SlotOf(&ProtocolBase::SetCustCmdPrefix));
    EXPECT_EQ(10u, SlotOf(&ProtocolBase::SetSndRcvTimeout));
    EXPECT_EQ(11u, SlotOf(&ProtocolBase::OpenConnect));
    EXPECT_EQ(12u, SlotOf(&ProtocolBase::ReConnect));
    EXPECT_EQ(13u, SlotOf(&ProtocolBase::InitSocket));
    EXPECT_EQ(14u, SlotOf(&ProtocolBase::RequestCommand));
    EXPECT_EQ(15u, SlotOf(&ProtocolBase::AckCommand));
    EXPECT_EQ(16u, SlotOf(&ProtocolBase::SendCommandData));
    EXPECT_EQ(17u, SlotOf(&ProtocolBase::CloseConnect));
    EXPECT_EQ(18u, SlotOf(&ProtocolBase::IsFuncPending));
    EXPECT_EQ(19u, SlotOf(&ProtocolBase::IsConnected));
    EXPECT_EQ(20u, SlotOf(&ProtocolBase::GetSocket));
    EXPECT_EQ(21u, SlotOf(&ProtocolBase::OpenSocket));
    EXPECT_EQ(22u, SlotOf(&ProtocolBase::ReleaseSocket));
    // 23 and 24 are the destructor.
    EXPECT_EQ(25u, SlotOf(&ProtocolBase::OnConnectClose));
    EXPECT_EQ(26u, SlotOf(&ProtocolBase::HandleRetVal));
    EXPECT_EQ(27u, SlotOf(&ProtocolBase::OnCustCommand));
    EXPECT_EQ(28u, SlotOf(&ProtocolBase::OnPeerAlive));
    EXPECT_EQ(29u, SlotOf(&ProtocolBase::HandShake));
    EXPECT_EQ(30u, SlotOf(&ProtocolBase::IsPeerAlive));
    EXPECT_EQ(31u, SlotOf(&ProtocolBase::NetworkThread));
}

TEST(VirtualTableTest, FirstVirtualOfADerivedClassFollowsTheNetworkThread) {
    struct Derived : ProtocolBase {
        virtual void First() {}
    };
    EXPECT_EQ(32u, SlotOf(&Derived::First));
}

TEST(VirtualTableTest, PlainMembersAreNotVirtual) {
    EXPECT_THROW(SlotOf(&ProtocolBase::OpenConnectImpl), std::invalid_argument);
    EXPECT_THROW(SlotOf(&ProtocolBase::ConfigSocket), std::invalid_argument);
    EXPECT_THROW(SlotOf(&ProtocolBase::InitThread), std::invalid_argument);
    EXPECT_THROW(SlotOf(&ProtocolBase::DispatcherThread), std::invalid_argument);
    EXPECT_THROW(SlotOf(&ProtocolBase::RecvUnknownData), std::invalid_argument);
}

TEST(BaseBehaviourTest, HooksDoNothingAndSucceed) {
    BareProtocol protocol;
    EXPECT_FALSE(protocol.IsFuncPending());
    EXPECT_FALSE(protocol.IsConnected());
    EXPECT_EQ(-1, protocol.GetSocket());
    EXPECT_EQ(-1, protocol.ReleaseSocket());
    EXPECT_EQ(1, protocol.OnCustCommand());
    EXPECT_EQ(0, protocol.HandShake(-1));
    EXPECT_TRUE(protocol.IsPeerAlive());
    protocol.OnPeerAlive();
    protocol.HandleRetVal(0x24, -1);
    EXPECT_EQ(0, protocol.GetErrorCode());
}

class ProtocolObjectTest : public ProtocolTest {};

TEST_F(ProtocolObjectTest, PendingFlagIsReported) {
    m_P.m_bFuncPending = true;
    EXPECT_TRUE(m_P.IsFuncPending());
    m_P.m_bFuncPending = false;
    EXPECT_FALSE(m_P.IsFuncPending());
}

TEST_F(ProtocolObjectTest, OnConnectCloseLogsAndClosesThroughTheVirtualCloseConnect) {
    m_P.ProtocolBase::OnConnectClose();
    EXPECT_EQ(1, m_P.closeConnects);
    EXPECT_EQ(1, CountLines(kLogDebug, WithPlace("OnConnectClose", -1)));
}

// ---- Starting the threads ----

TEST_F(ProtocolObjectTest, OpenConnectionHasADispatcherAndANetworkThread) {
    Connect(false);
    EXPECT_TRUE(m_P.m_bRunning);
    EXPECT_NE(nullptr, m_P.m_pDispatcherThread);
    ASSERT_TRUE(m_P.HasThreadGroup());
    EXPECT_EQ(1u, m_P.m_pThreadGroup->size());
    EXPECT_EQ(nullptr, m_P.m_pCloseThread);
    EXPECT_TRUE(HasLine(kLogDebug, WithPlace("NetworkThread begin")));
    EXPECT_TRUE(HasLine(kLogDebug, WithPlace("DispatcherThread begin")));
}

TEST_F(ProtocolObjectTest, ConnectionWithoutDispatcherHasOnlyTheNetworkThread) {
    Connect(true);
    EXPECT_EQ(nullptr, m_P.m_pDispatcherThread);
    ASSERT_TRUE(m_P.HasThreadGroup());
    EXPECT_EQ(1u, m_P.m_pThreadGroup->size());
    EXPECT_TRUE(HasLine(kLogDebug, WithPlace("NetworkThread begin")));
    EndProtocol();
    EXPECT_EQ(0, m_Log.Count(kLogDebug, "DispatcherThread"));
}

TEST_F(ProtocolObjectTest, OverriddenNetworkThreadRuns) {
    std::atomic<int> runs{0};
    m_P.onNetworkThread = [&] { ++runs; };
    Connect();
    EXPECT_TRUE(WaitFor([&] { return runs == 1; }));
    EndProtocol();
    EXPECT_EQ(1, runs);
    EXPECT_EQ(0, m_Log.Count(kLogDebug, "NetworkThread begin"));
}

TEST_F(ProtocolObjectTest, StartClearsTheErrorRecord) {
    m_P.SetErrorAt(-6528004, "one", "two", "Elsewhere.cpp", 77);
    Connect();
    EXPECT_EQ(0, m_P.GetErrorCode());
    EXPECT_EQ(std::make_pair(std::string(), std::string()), m_P.ErrorArguments());
}

TEST_F(ProtocolObjectTest, DispatcherOfTheNextConnectionStartsWithAnEmptyQueue) {
    Connect(true);
    m_Peer.Send(Hex("52 65 63 76 49 50 43 26"));
    EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 1; }));
    Connect(false);
    EXPECT_EQ(0u, m_P.QueuedEvents());
    m_Peer.Send(Hex("52 65 63 76 49 50 43 25 01 41"));
    EXPECT_TRUE(WaitFor([&] {
        const std::vector<std::string> notes = m_P.Notes();
        return !notes.empty() && notes.back() == "HandleRetVal 25 1";
    }));
    for (const std::string& note : m_P.Notes())
        EXPECT_NE("On 26 ", note);
}

TEST_F(ProtocolObjectTest, QueueIsKeptWhenTheNextConnectionHasNoDispatcher) {
    Connect(true);
    m_Peer.Send(Hex("52 65 63 76 49 50 43 26"));
    EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 1; }));
    Connect(true);
    EXPECT_EQ(1u, m_P.QueuedEvents());
}

TEST_F(ProtocolObjectTest, NextStartWaitsForTheDispatcherBefore) {
    Gate handling;
    Gate goOn;
    m_P.onEvent = [&](unsigned char, const char*) {
        handling.Open();
        goOn.Wait();
        return 1;
    };
    Connect(false);
    m_Peer.Send(Hex("52 65 63 76 49 50 43 26"));
    EXPECT_TRUE(handling.Wait());
    std::future<int> opened = std::async(std::launch::async, [this] {
        return m_P.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, true, 10);
    });
    {
        GateOpener opener(goOn);
        EXPECT_TRUE(HasLine(kLogDebug, WithPlace("NetworkThread end")));
        EXPECT_EQ(std::future_status::timeout, opened.wait_for(milliseconds(150)));
    }
    EXPECT_EQ(0, opened.get());
    EXPECT_EQ(nullptr, m_P.m_pDispatcherThread);
    EXPECT_EQ(1, m_Log.Count(kLogDebug, "DispatcherThread end"));
}

// ---- Threads that cannot be started ----

class NoThreadTest : public ProtocolTest {
protected:
    int Open(bool noDispatcher) {
        return m_P.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, noDispatcher, 10);
    }
    void ExpectClosed() {
        EXPECT_EQ(-1, m_P.GetSocket());
        EXPECT_FALSE(m_P.m_bRunning);
        EXPECT_FALSE(m_P.HasThreadGroup());
        EXPECT_EQ("", m_P.Host());
        EXPECT_TRUE(m_Peer.Accept());
        EXPECT_TRUE(m_Peer.ClientClosed());
    }
};

TEST_F(NoThreadTest, MissingDispatcherClosesAndFails) {
    Interposed().threadStarts = [] { return false; };
    EXPECT_EQ(kCreateObject, Open(false));
    ExpectError(kCreateObject, "m_pDispatcherThread", "",
                "Failed to create object: m_pDispatcherThread", 0);
    EXPECT_EQ(nullptr, m_P.m_pDispatcherThread);
    ExpectClosed();
    EXPECT_EQ(0, m_Log.Count(kLogDebug, "NetworkThread begin"));
}

TEST_F(NoThreadTest, MissingNetworkThreadClosesAndFails) {
    Interposed().threadStarts = [] { return false; };
    EXPECT_EQ(kCreateObject, Open(true));
    EXPECT_EQ(kCreateObject, m_P.GetErrorCode());
    ExpectClosed();
}

TEST_F(NoThreadTest, MissingNetworkThreadAlsoEndsTheDispatcher) {
    int starts = 0;
    Interposed().threadStarts = [&] { return ++starts == 1; };
    EXPECT_EQ(kCreateObject, Open(false));
    EXPECT_EQ(kCreateObject, m_P.GetErrorCode());
    EXPECT_TRUE(m_Log.WaitForLines(kLogDebug, "DispatcherThread end"));
    ExpectClosed();
}

TEST_F(NoThreadTest, MissingThreadGroupClosesAndFails) {
    FailAllocationOf(sizeof(boost::thread_group));
    EXPECT_EQ(kCreateObject, Open(false));
    FailAllocationOf(0);
    ExpectError(kCreateObject, "m_pThreadGroup", "", "Failed to create object: m_pThreadGroup", 0);
    ExpectClosed();
}

TEST_F(NoThreadTest, ObjectThatFailedToStartCanBeOpenedLater) {
    Interposed().threadStarts = [] { return false; };
    EXPECT_EQ(kCreateObject, Open(false));
    ExpectClosed();
    Interposed().threadStarts = nullptr;
    Connect(false);
    EXPECT_TRUE(m_P.IsConnected());
    EXPECT_EQ(0, m_P.GetErrorCode());
}

// ---- Destruction ----

TEST_F(ProtocolObjectTest, DestroyingAnObjectThatNeverConnectedReturnsAtOnce) {
    const Clock::time_point start = Clock::now();
    EndProtocol();
    EXPECT_LT(Since(start), Stretched(milliseconds(2000)));
    EXPECT_EQ(1, CountLines(kLogDebug, WithPlace("CloseConnect 0 0", -1)));
}

TEST_F(ProtocolObjectTest, DestructionEndsTheThreadsAndClosesTheConnection) {
    Connect(false);
    const int threads = Threads();
    EndProtocol();
    EXPECT_EQ(1, CountLines(kLogDebug, WithPlace("NetworkThread end")));
    EXPECT_EQ(1, m_Log.Count(kLogDebug, "DispatcherThread end"));
    EXPECT_TRUE(m_Peer.ClientClosed());
    EXPECT_TRUE(WaitFor([&] { return Threads() == threads - 2; }));
}

TEST_F(ProtocolObjectTest, DestructionIsNoLostLink) {
    std::atomic<int> closes{0};
    m_P.onConnectClose = [&] { ++closes; };
    Connect(false);
    EndProtocol();
    EXPECT_EQ(0, closes);
    EXPECT_EQ(0, m_Log.Count(kLogDebug, "OnConnectClose"));
}

TEST_F(ProtocolObjectTest, DestructionWaitsForTheHandlerThatRuns) {
    std::atomic<bool> handled{false};
    Gate handling;
    m_P.onEvent = [&](unsigned char, const char*) {
        handling.Open();
        WaitFor([this] { return !m_P.m_bRunning; });
        handled = true;
        return 1;
    };
    Connect(false);
    m_Peer.Send(Hex("52 65 63 76 49 50 43 26"));
    EXPECT_TRUE(handling.Wait());
    EndProtocol();
    EXPECT_TRUE(handled);
}

TEST_F(ProtocolObjectTest, DestructionWaitsForTheCloseThreadThatRuns) {
    std::atomic<bool> closed{false};
    Gate closing;
    m_P.onConnectClose = [&] {
        closing.Open();
        WaitFor([this] { return m_P.m_bClosing.load(); });  // the destructor is at work
        m_P.ProtocolBase::OnConnectClose();
        closed = true;
    };
    Connect(false);
    m_Peer.Close();
    EXPECT_TRUE(closing.Wait());
    EndProtocol();
    EXPECT_TRUE(closed);
}

TEST_F(ProtocolObjectTest, BaseObjectAloneConnectsAndIsDestroyed) {
    for (int n = 0; n < 20; ++n) {
        ProtocolBase protocol;
        protocol.SetCmdPrefix("RecvIPC", 7);
        ASSERT_EQ(0, protocol.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, n % 2 != 0, 10));
        ASSERT_TRUE(m_Peer.Accept());
        if (n % 3 == 0)
            m_Peer.Close();
    }
    EXPECT_TRUE(m_Peer.ClientClosed());
}

TEST_F(ProtocolObjectTest, BrokenConnectionIsNoConnectionOnceItIsClosed) {
    Connect(false);
    EXPECT_TRUE(m_P.IsConnected());
    m_Peer.Close();
    EXPECT_TRUE(WaitFor([&] { return !m_P.IsConnected(); }));
    EXPECT_TRUE(WaitFor([&] { return !m_P.HasThreadGroup() && m_P.Host().empty(); }));
    EXPECT_FALSE(m_P.m_bRunning);
    EXPECT_TRUE(m_Log.WaitForLines(kLogDebug, "DispatcherThread end"));
}

}  // namespace
}  // namespace sr_test
