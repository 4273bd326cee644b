#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>

#include "tests/support/Emulation.h"
#include "tests/wire/ProtocolFixture.h"

namespace sr_test {
namespace {

const char kClosedGracefully[] = "The connection has been gracefully closed.";
constexpr int kPeerClosed = -6528002;

std::string Frame(const std::string& commandAndPayload) {
    return Hex("52 65 63 76 49 50 43") + Hex(commandAndPayload);
}

std::string CustomFrame(const std::string& payload) {
    return Hex("43 75 73 74 49 50 43") + Hex(payload);
}

class NetworkThreadTest : public ProtocolTest {
protected:
    /// Waits until the network thread has ended and the connection was closed behind it.
    void ExpectLinkLost() {
        EXPECT_TRUE(m_Log.WaitForLines(kLogDebug, "NetworkThread end"));
        EXPECT_TRUE(WaitFor([&] { return !m_P.IsConnected(); }));
        EXPECT_FALSE(m_P.m_bRunning);
        EXPECT_EQ(1, m_P.connectCloses);
    }

    void ExpectLinkAlive() {
        const size_t events = m_P.QueuedEvents();
        m_Peer.Send(Frame("26"));
        EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == events + 1; }));
        EXPECT_TRUE(m_P.IsConnected());
        EXPECT_EQ(0, m_P.GetErrorCode());
        EXPECT_EQ(0, m_P.connectCloses);
    }

    int EndLines() const { return m_Log.Count(kLogDebug, "NetworkThread end"); }
};

// ---- Begin and end ----

TEST_F(NetworkThreadTest, LogsItsBeginAndItsEnd) {
    Connect();
    EXPECT_TRUE(HasLine(kLogDebug, WithPlace("NetworkThread begin")));
    EXPECT_EQ(0, EndLines());
    m_P.ProtocolBase::CloseConnect();
    EXPECT_EQ(1, CountLines(kLogDebug, WithPlace("NetworkThread begin")));
    EXPECT_EQ(1, CountLines(kLogDebug, WithPlace("NetworkThread end")));
}

TEST_F(NetworkThreadTest, TeardownWhileItWaitsStartsNoCloseThread) {
    Connect();
    EXPECT_TRUE(WaitFor([&] { return m_P.peerAliveLooks > 2; }));
    m_P.ProtocolBase::CloseConnect();
    EXPECT_EQ(1, CountLines(kLogDebug, WithPlace("NetworkThread end")));
    EXPECT_EQ(0, m_P.connectCloses);
    EXPECT_EQ(nullptr, m_P.m_pCloseThread);
    EXPECT_EQ(0, m_P.GetErrorCode());
}

TEST_F(NetworkThreadTest, EndsWhenTheRunningFlagIsClearedAndLeavesTheSocketOpen) {
    Connect();
    m_P.m_bRunning = false;
    EXPECT_TRUE(HasLine(kLogDebug, WithPlace("NetworkThread end")));
    EXPECT_EQ(0, m_P.connectCloses);
    EXPECT_EQ(m_nSock, m_P.GetSocket());
    EXPECT_TRUE(m_P.HasThreadGroup());
}

TEST_F(NetworkThreadTest, SilentPeerKeepsItPollingAtLeast30MillisecondsApart) {
    const Clock::time_point start = Clock::now();
    Connect();
    EXPECT_TRUE(WaitFor([&] { return m_P.peerAliveLooks >= 20; }));
    const int looks = m_P.peerAliveLooks;
    // Each pass without data ends in a sleep of 30 ms; only the first has none before it.
    EXPECT_GE(Since(start).count(), 30 * (looks - 2));
    EXPECT_EQ(0, EndLines());
    EXPECT_TRUE(m_P.IsConnected());
}

TEST_F(NetworkThreadTest, DeadPeerIsLoggedAndKickedOutWithoutAnError) {
    std::atomic<bool> alive{true};
    m_P.onIsPeerAlive = [&] { return alive.load(); };
    Connect();
    EXPECT_TRUE(WaitFor([&] { return m_P.peerAliveLooks > 2; }));
    alive = false;
    ExpectLinkLost();
    EXPECT_EQ(1, CountLines(kLogNotice, WithPlace("Peer is treated as dead. Kick it out.")));
    EXPECT_EQ(0, m_P.GetErrorCode());
    EXPECT_EQ(0, CountErrorLines());
    EXPECT_TRUE(m_Peer.ClientClosed());
}

TEST_F(NetworkThreadTest, PeerThatIsDeadAtTheFirstLookIsKickedOut) {
    m_P.onIsPeerAlive = [] { return false; };
    EXPECT_EQ(0, m_P.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, true, 10));
    ExpectLinkLost();
    EXPECT_EQ(1, m_P.peerAliveLooks);
}

TEST_F(NetworkThreadTest, LostLinkIsClosedOnAThreadOfItsOwn) {
    std::mutex mutex;
    std::thread::id networkThread;
    std::thread::id closeThread;
    m_P.onIsPeerAlive = [&] {
        std::lock_guard<std::mutex> lock(mutex);
        networkThread = std::this_thread::get_id();
        return true;
    };
    m_P.onConnectClose = [&] {
        {
            std::lock_guard<std::mutex> lock(mutex);
            closeThread = std::this_thread::get_id();
        }
        m_P.ProtocolBase::OnConnectClose();
    };
    Connect();
    m_Peer.Close();
    ExpectLinkLost();
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_NE(networkThread, closeThread);
    EXPECT_NE(std::this_thread::get_id(), closeThread);
    EXPECT_NE(std::thread::id(), closeThread);
}

TEST_F(NetworkThreadTest, LostLinkIsLoggedAndClosedThroughTheVirtualCloseConnect) {
    Connect();
    const int before = m_P.closeConnects;
    m_Peer.Close();
    ExpectLinkLost();
    EXPECT_EQ(1, CountLines(kLogDebug, WithPlace("OnConnectClose")));
    EXPECT_EQ(before + 1, m_P.closeConnects);
    EXPECT_TRUE(WaitFor([&] { return m_P.Host().empty(); }));
}

TEST_F(NetworkThreadTest, EveryLostLinkOfAnObjectIsClosed) {
    for (int n = 1; n <= 3; ++n) {
        Connect();
        m_Peer.Close();
        EXPECT_TRUE(WaitFor([&] { return !m_P.IsConnected() && m_P.connectCloses == n; }));
    }
}

TEST_F(NetworkThreadTest, CloseHookThatClosesNothingLeavesTheDescriptorHeld) {
    m_P.onConnectClose = [] {};
    Connect();
    m_Peer.Close();
    EXPECT_TRUE(HasLine(kLogDebug, WithPlace("NetworkThread end")));
    EXPECT_TRUE(WaitFor([&] { return m_P.connectCloses == 1; }));
    EXPECT_FALSE(m_P.m_bRunning);
    EXPECT_EQ(m_nSock, m_P.GetSocket());
}

// ---- Incomplete and broken frames ----

TEST_F(NetworkThreadTest, PrefixInTwoPiecesDropsNoByte) {
    Connect();
    m_Peer.Send(Hex("52 65 63"));
    EXPECT_TRUE(HasLine(kLogDebug, WithPlace("NetworkThread no enough data to match prefix 3")));
    m_Peer.Send(Hex("76 49 50 43 25 02 68 69"));
    EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 1; }));
    EXPECT_EQ(TestProtocol::Event(0x25, Hex("02 68 69")), m_P.TakeEvents().at(0));
    EXPECT_EQ(1, m_Log.Count(kLogDebug, "NetworkThread no enough data to match prefix"));
    EXPECT_EQ(0, m_Log.Count(kLogNotice, "NetworkThread unknown prefix data"));
}

TEST_F(NetworkThreadTest, PrefixThatStaysShortIsPeekedAgainWithEveryNewByte) {
    Connect();
    m_Peer.Send(Hex("52"));
    EXPECT_TRUE(HasLine(kLogDebug, WithPlace("NetworkThread no enough data to match prefix 1")));
    m_Peer.Send(Hex("65"));
    EXPECT_TRUE(HasLine(kLogDebug, WithPlace("NetworkThread no enough data to match prefix 2")));
    m_Peer.Send(Hex("63 76 49 50 43 26"));
    EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 1; }));
    EXPECT_EQ(2, m_Log.Count(kLogDebug, "NetworkThread no enough data to match prefix"));
}

TEST_F(NetworkThreadTest, RunningFlagThatDropsInTheMiddleOfGarbageEndsTheSearch) {
    m_Log.onLine = [this](const std::string& message) {
        if (message.find("NetworkThread unknown prefix data") == 0)
            m_P.m_bRunning = false;
    };
    Connect();
    m_Peer.Send(std::string(100, 'x'));
    EXPECT_TRUE(HasLine(kLogDebug, WithPlace("NetworkThread end")));
    EXPECT_EQ(1, m_Log.Count(kLogNotice, "NetworkThread unknown prefix data"));
    EXPECT_EQ(0, m_P.connectCloses);
}

TEST_F(NetworkThreadTest, ReadsPeekThePrefixAndWaitFiveSecondsAtMost) {
    struct Read {
        int len, flags, timeoutMs;
        bool operator==(const Read& o) const {
            return len == o.len && flags == o.flags && timeoutMs == o.timeoutMs;
        }
    };
    std::mutex mutex;
    std::vector<Read> reads;
    Interposed().recv = [&](char*, int len, int flags, int timeoutMs) -> std::optional<int> {
        std::lock_guard<std::mutex> lock(mutex);
        reads.push_back({len, flags, timeoutMs});
        return std::nullopt;
    };
    Connect();
    m_Peer.Send(Hex("78") + Frame("26"));
    EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 1; }));
    EndProtocol();
    const std::vector<Read> expected = {
        {7, 2, 5000}, {1, 0, 5000}, {7, 2, 5000}, {7, 0, 5000}, {1, 0, 5000}};
    EXPECT_TRUE(expected == reads);
}

// ---- Locks ----

TEST_F(NetworkThreadTest, AnswerReaderRunsUnderTheReceiveAndTheSendLock) {
    std::atomic<int> free{-1};
    m_P.onRead = [&](std::string&) {
        free = TestProtocol::IsFree(m_P.m_RecvMutex) + 2 * TestProtocol::IsFree(m_P.m_SendMutex);
        return 1;
    };
    Connect();
    m_P.m_nAnsCode = kHookedAnswer;
    m_Peer.Send(Frame("31"));
    EXPECT_TRUE(IsWaitingFor(0));
    EXPECT_EQ(0, free);
    EXPECT_TRUE(WaitFor([&] { return TestProtocol::IsFree(m_P.m_RecvMutex); }));
    EXPECT_TRUE(TestProtocol::IsFree(m_P.m_SendMutex));
}

TEST_F(NetworkThreadTest, EventReaderRunsUnderTheReceiveLockOnly) {
    std::atomic<int> free{-1};
    m_P.onRead = [&](std::string&) {
        free = TestProtocol::IsFree(m_P.m_RecvMutex) + 2 * TestProtocol::IsFree(m_P.m_SendMutex) +
               4 * TestProtocol::IsFree(m_P.m_EventMutex);
        return 1;
    };
    Connect();
    m_Peer.Send(Frame("30"));
    EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 1; }));
    EXPECT_EQ(6, free);
}

TEST_F(NetworkThreadTest, NoLockIsHeldOnceTheLinkIsLost) {
    std::atomic<int> free{-1};
    m_P.onConnectClose = [&] {
        WaitFor([&] { return EndLines() == 1; });
        free = TestProtocol::IsFree(m_P.m_RecvMutex) + 2 * TestProtocol::IsFree(m_P.m_SendMutex) +
               4 * TestProtocol::IsFree(m_P.m_EventMutex);
        m_P.ProtocolBase::OnConnectClose();
    };
    m_P.onRead = [](std::string&) { return 0; };
    Connect();
    m_P.m_nAnsCode = kHookedAnswer;
    m_Peer.Send(Frame("31"));
    ExpectLinkLost();
    EXPECT_EQ(7, free);
}

// ---- What the results of readers mean ----

class ReaderResultTest : public NetworkThreadTest, public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(LinkKept, ReaderResultTest, testing::Values(1, 2, 4096, -2, -6528002));

TEST_P(ReaderResultTest, EventIsQueued) {
    m_P.onRead = [](std::string& payload) {
        payload = "read";
        return GetParam();
    };
    Connect();
    m_Peer.Send(Frame("30"));
    EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 1; }));
    EXPECT_EQ(TestProtocol::Event(0x30, "read"), m_P.TakeEvents().at(0));
    EXPECT_EQ(1, CountLines(kLogInfo, WithPlace("<== NetworkThread got event 0x30, len=4")));
    ExpectLinkAlive();
}

TEST_P(ReaderResultTest, RequestIsAnswered) {
    m_P.onRead = [](std::string&) { return GetParam(); };
    Connect();
    std::future<int> result = RequestAsync(kRequest, kHookedAnswer, "Name", 20);
    EXPECT_EQ(Frame("10"), m_Peer.Receive(8));
    m_Peer.Send(Frame("31"));
    EXPECT_EQ(0, result.get());
    ExpectLinkAlive();
}

TEST_P(ReaderResultTest, CustomFrameEnds) {
    m_P.SetCustCmdPrefix("CustIPC");
    m_P.onCustCommand = [] { return GetParam(); };
    Connect();
    m_Peer.Send(CustomFrame(""));
    ExpectLinkAlive();
    EXPECT_EQ(std::vector<std::string>({"OnPeerAlive", "OnCustCommand", "OnPeerAlive"}),
              m_P.Notes());
}

// ---- Errors of the reads, one by one ----

TEST_F(NetworkThreadTest, SelectOnNoDescriptorIsABadDescriptor) {
    Connect();
    const int sock = m_P.ReleaseSocket();
    EXPECT_EQ(m_nSock, sock);
    EXPECT_TRUE(HasLine(kLogDebug, WithPlace("NetworkThread end", -1)));
    ExpectError(-EBADF, "", "", "Bad file descriptor", 458);
    // Without a socket there is nothing to hand over, and the flag is left as it is.
    EXPECT_TRUE(m_P.m_bRunning);
    EXPECT_EQ(0, m_P.connectCloses);
    EndProtocol();
    EXPECT_EQ(0, ::close(sock));
}

TEST_F(NetworkThreadTest, PeerThatClosesBetweenFramesIsAGracefulClose) {
    Connect();
    m_Peer.Send(Frame("26"));
    m_Peer.Close();
    ExpectLinkLost();
    ExpectError(kPeerClosed, "", "", kClosedGracefully, 471);
    EXPECT_EQ(1u, m_P.QueuedEvents());
}

TEST_F(NetworkThreadTest, PeerThatClosesInMidPrefixIsAGracefulClose) {
    Connect();
    m_Peer.Send(Hex("52 65 63"));
    m_Peer.Close();
    ExpectLinkLost();
    ExpectError(kPeerClosed, "", "", kClosedGracefully, 471);
}

TEST_F(NetworkThreadTest, PeerThatResetsBetweenFramesGivesTheSystemsError) {
    Connect();
    m_Peer.Reset();
    ExpectLinkLost();
    ExpectError(-ECONNRESET, "", "", "Connection reset by peer", 471);
}

TEST_F(NetworkThreadTest, PeerThatClosesBehindThePrefixIsAGracefulClose) {
    Connect();
    m_Peer.Send(Frame(""));
    m_Peer.Close();
    ExpectLinkLost();
    ExpectError(kPeerClosed, "", "", kClosedGracefully, 492);
}

TEST_F(NetworkThreadTest, CommandByteThatNeverComesIsATimeOutAfterFiveSeconds) {
    Connect();
    const Clock::time_point start = Clock::now();
    m_Peer.Send(Frame(""));
    EXPECT_TRUE(m_Log.WaitForLines(kLogDebug, "NetworkThread end"));
    EXPECT_GE(Since(start).count(), 4900);
    ExpectLinkLost();
    ExpectError(-EAGAIN, "", "", "Resource temporarily unavailable", 492);
}

TEST_F(NetworkThreadTest, PayloadThatNeverComesIsATimeOutAfterFiveSeconds) {
    Connect();
    const Clock::time_point start = Clock::now();
    m_Peer.Send(Frame("24"));
    EXPECT_TRUE(m_Log.WaitForLines(kLogDebug, "NetworkThread end"));
    EXPECT_GE(Since(start).count(), 4900);
    ExpectLinkLost();
    ExpectError(-EAGAIN, "", "", "Resource temporarily unavailable", 505);
}

TEST_F(NetworkThreadTest, PeerThatClosesInMidEventIsAGracefulClose) {
    Connect();
    m_Peer.Send(Frame("24 01 02 03"));
    m_Peer.Close();
    ExpectLinkLost();
    ExpectError(kPeerClosed, "", "", kClosedGracefully, 505);
    EXPECT_EQ(0u, m_P.QueuedEvents());
    EXPECT_EQ(0, m_Log.Count(kLogInfo, "<== NetworkThread got event"));
}

TEST_F(NetworkThreadTest, PeerThatClosesInMidAnswerLeavesTheAnswerCode) {
    std::atomic<int> ansCode{-1};
    m_P.onConnectClose = [&] {
        ansCode = m_P.m_nAnsCode;
        m_P.ProtocolBase::OnConnectClose();
    };
    Connect();
    m_P.m_nAnsCode = kAnswer;
    m_Peer.Send(Frame("11 41 42"));
    m_Peer.Close();
    ExpectLinkLost();
    EXPECT_EQ(kAnswer, ansCode);
    ExpectError(kPeerClosed, "", "", kClosedGracefully, 498);
    EXPECT_EQ(1, CountLines(kLogInfo, WithPlace("<== NetworkThread got response 0x11")));
}

/// Where a read fails, and what is recorded then.
struct FailingRead {
    const char* name;
    const char* sent;  // what the peer sends
    int len;           // the read that fails: its length and flags
    int flags;
    int line;
};

std::ostream& operator<<(std::ostream& out, const FailingRead& site) {
    return out << site.line;
}

class FailingReadTest : public NetworkThreadTest, public testing::WithParamInterface<FailingRead> {
protected:
    void FailWith(int result, int error) {
        // Earlier calls of the thread leave their errno; none of it may be taken for the read's.
        m_P.onIsPeerAlive = [] {
            errno = ENOENT;
            return true;
        };
        m_P.onPeerAlive = [] { errno = EDOM; };
        Interposed().recv = [=](char*, int len, int flags, int) -> std::optional<int> {
            if (len != GetParam().len || flags != GetParam().flags)
                return std::nullopt;
            errno = error;
            return result;
        };
        Connect();
        m_Peer.Send(Hex(GetParam().sent));
        ExpectLinkLost();
    }
};

TEST_P(FailingReadTest, NothingReadWithoutErrnoIsAGracefulClose) {
    FailWith(0, 0);
    ExpectError(kPeerClosed, "", "", kClosedGracefully, GetParam().line);
}

TEST_P(FailingReadTest, NothingReadInTimeIsTheTimeOutsErrno) {
    FailWith(0, EAGAIN);
    ExpectError(-EAGAIN, "", "", "Resource temporarily unavailable", GetParam().line);
}

TEST_P(FailingReadTest, FailureIsThatReadsErrno) {
    FailWith(-1, ECONNRESET);
    ExpectError(-ECONNRESET, "", "", "Connection reset by peer", GetParam().line);
}

TEST_P(FailingReadTest, FailureWithoutErrnoIsAGracefulClose) {
    FailWith(-1, 0);
    ExpectError(kPeerClosed, "", "", kClosedGracefully, GetParam().line);
}

INSTANTIATE_TEST_SUITE_P(
    Sites,
    FailingReadTest,
    testing::Values(FailingRead{"PeekOfThePrefix", "52 65 63 76 49 50 43 26", 7, 2, 471},
                    FailingRead{"DropOfAGarbageByte", "78 52 65 63 76 49 50 43 26", 1, 0, 483},
                    FailingRead{"ReadOfThePrefix", "52 65 63 76 49 50 43 26", 7, 0, 486},
                    FailingRead{"ReadOfTheCommandByte", "52 65 63 76 49 50 43 26", 1, 0, 492},
                    FailingRead{"ReadOfAnEventsPayload", "52 65 63 76 49 50 43 24 01", 12, 0, 505}),
    [](const auto& site) { return std::string(site.param.name); });

/// Readers and hooks that fail by themselves.
struct FailingReader {
    const char* name;
    const char* sent;
    int ansCode;
    int line;
};

std::ostream& operator<<(std::ostream& out, const FailingReader& site) {
    return out << site.line;
}

class FailingReaderTest : public NetworkThreadTest,
                          public testing::WithParamInterface<FailingReader> {
protected:
    void FailWith(int result, int error) {
        m_P.SetCustCmdPrefix("CustIPC");
        m_P.onPeerAlive = [] { errno = EDOM; };
        m_P.onRead = [=](std::string&) {
            if (error != 0)
                errno = error;
            return result;
        };
        m_P.onCustCommand = [=] {
            if (error != 0)
                errno = error;
            return result;
        };
        m_P.onConnectClose = [this] {
            m_nAnsCodeAtTheEnd = m_P.m_nAnsCode;
            m_P.ProtocolBase::OnConnectClose();
        };
        Connect();
        m_P.m_nAnsCode = static_cast<unsigned char>(GetParam().ansCode);
        m_Peer.Send(Hex(GetParam().sent));
        ExpectLinkLost();
        EXPECT_EQ(GetParam().ansCode, m_nAnsCodeAtTheEnd);
        EXPECT_EQ(0u, m_P.QueuedEvents());
        EXPECT_EQ(0, m_Log.Count(kLogInfo, "<== NetworkThread got event"));
    }

    std::atomic<int> m_nAnsCodeAtTheEnd{-1};
};

TEST_P(FailingReaderTest, ZeroBreaksTheLink) {
    FailWith(0, 0);
    ExpectError(kPeerClosed, "", "", kClosedGracefully, GetParam().line);
}

TEST_P(FailingReaderTest, MinusOneBreaksTheLink) {
    FailWith(-1, 0);
    ExpectError(kPeerClosed, "", "", kClosedGracefully, GetParam().line);
}

TEST_P(FailingReaderTest, ZeroWithErrnoIsRecordedAsThatError) {
    FailWith(0, EPROTO);
    ExpectError(-EPROTO, "", "", "Protocol error", GetParam().line);
}

TEST_P(FailingReaderTest, MinusOneWithErrnoIsRecordedAsThatError) {
    FailWith(-1, EPROTO);
    ExpectError(-EPROTO, "", "", "Protocol error", GetParam().line);
}

INSTANTIATE_TEST_SUITE_P(
    Sites,
    FailingReaderTest,
    testing::Values(FailingReader{"Answer", "52 65 63 76 49 50 43 31", 0x31, 498},
                    FailingReader{"Event", "52 65 63 76 49 50 43 30", 0, 505},
                    FailingReader{"CustomFrame", "43 75 73 74 49 50 43", 0, 517}),
    [](const auto& site) { return std::string(site.param.name); });

// ---- errno of this read ----

TEST_F(NetworkThreadTest, GracefulCloseIsNoneOfTheErrorsThatCallsFailedWithBefore) {
    m_P.onIsPeerAlive = [] {
        errno = ENOENT;
        return true;
    };
    Connect();
    m_Peer.Close();
    ExpectLinkLost();
    ExpectError(kPeerClosed, "", "", kClosedGracefully, 471);
}

TEST_F(NetworkThreadTest, GracefulCloseInMidEventIsNoneOfTheErrorsThatCallsFailedWithBefore) {
    m_P.onPeerAlive = [] { errno = EACCES; };
    Connect();
    m_Peer.Send(Frame("24 01 02 03"));
    // The reader has been waiting, so its own polls have failed with EAGAIN.
    EXPECT_TRUE(WaitFor([&] { return !m_P.Notes().empty(); }));
    m_Peer.Send(Hex("04"));
    m_Peer.Close();
    ExpectLinkLost();
    ExpectError(kPeerClosed, "", "", kClosedGracefully, 505);
}

// ---- Descriptors beyond what a plain set of the platform holds ----

TEST_F(NetworkThreadTest, DescriptorsOf1024AndMoreReceive) {
    if (kEmulated)
        GTEST_SKIP() << "the emulator's own select() aborts at a descriptor of 1024 and more";
    rlimit limit = {};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, 2000);
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
    std::vector<int> held;
    for (int fd = 0; fd < 1200;) {
        fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        ASSERT_LE(0, fd);
        held.push_back(fd);
    }
    Connect();
    EXPECT_LE(1200, m_P.GetSocket());
    m_Peer.Send(Frame("24 00 01 02 03 04 05 06 07 08 09 0A 0B"));
    EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 1; }));
    ExpectLinkAlive();
    m_Peer.Close();
    ExpectLinkLost();
    ExpectError(kPeerClosed, "", "", kClosedGracefully, 471);
    for (const int fd : held)
        ::close(fd);
}

}  // namespace
}  // namespace sr_test
