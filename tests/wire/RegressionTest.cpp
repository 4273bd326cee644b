#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>

#include "tests/wire/ProtocolFixture.h"

// gcc tells of its sanitizers by macros, clang by features.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define SR_SANITIZED
#endif
#endif
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
#define SR_SANITIZED
#endif

// What threads of an application do to the engine that no peer can do: they are interrupted,
// cancelled, send without end, close inside a handler, and derive classes that open by themselves.

namespace sr_test {
namespace {

using Ports = std::vector<unsigned short>;

constexpr int kInitObject = -6527004;
constexpr int kStillClosing = -6528005;
constexpr int kHandShakeFailed = -6528006;
constexpr int kNoAnswer = -6528101;

const char kBareEventFrame[] = "52 65 63 76 49 50 43 26";

int ConnectTo(const ScriptedPeer& peer) {
    const int sock = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in name = {};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = ::inet_addr(peer.Host());
    name.sin_port = htons(peer.Port());
    EXPECT_EQ(0, ::connect(sock, reinterpret_cast<sockaddr*>(&name), sizeof name));
    return sock;
}

bool IsReadyWithin(std::future<int>& result, milliseconds limit) {
    return result.wait_for(Stretched(limit)) == std::future_status::ready;
}

class RegressionTest : public ProtocolTest {
protected:
    /// A request that the peer answers at once.
    void ExpectRequestWorks(ScriptedPeer& peer) {
        std::future<int> result = RequestAsync(kOtherRequest, kOtherAnswer, "Other", 10);
        EXPECT_EQ(Hex("52 65 63 76 49 50 43 20"), peer.Receive(8));
        peer.Send(Hex("52 65 63 76 49 50 43 21 01 02 03 04"));
        EXPECT_EQ(0, result.get());
    }

    /// The network thread looks at its peer at least every 30 ms, which makes it a clock.
    bool WaitForSlices(int count) {
        const int before = m_P.peerAliveLooks;
        return WaitFor([&] { return m_P.peerAliveLooks >= before + count; });
    }
};

// ---- Interrupted threads ----

/// A thread that the application's own code may interrupt.
class AppThread {
public:
    explicit AppThread(const std::function<int()>& call)
        : m_Thread([this, call] {
              try {
                  result = call();
                  stillInterrupted = boost::this_thread::interruption_requested();
              } catch (...) {
                  threw = true;
              }
          }) {}
    ~AppThread() { Join(); }

    void Interrupt() { m_Thread.interrupt(); }
    void Join() {
        if (m_Thread.joinable())
            m_Thread.join();
    }

    std::atomic<int> result{1};
    std::atomic<bool> stillInterrupted{false};
    std::atomic<bool> threw{false};

private:
    boost::thread m_Thread;  // last: it writes the others
};

TEST_F(RegressionTest, InterruptedRequestEndsByItsAnswer) {
    Connect();
    AppThread thread([this] {
        return m_P.RequestCommand(kRequest, kAnswer, "Interrupted", std::string(), true, 10);
    });
    ASSERT_TRUE(IsWaitingFor(kAnswer));
    EXPECT_EQ(Hex("52 65 63 76 49 50 43 10"), m_Peer.Receive(8));
    thread.Interrupt();
    EXPECT_TRUE(WaitForSlices(5));
    EXPECT_EQ(kAnswer, m_P.m_nAnsCode);
    m_Peer.Send(Hex("52 65 63 76 49 50 43 11 01 02 03 04"));
    thread.Join();
    EXPECT_FALSE(thread.threw);
    EXPECT_EQ(0, thread.result);
    EXPECT_TRUE(thread.stillInterrupted);
    ExpectRequestWorks(m_Peer);
}

TEST_F(RegressionTest, InterruptedRequestEndsByItsTimeOut) {
    Connect();
    const Clock::time_point start = Clock::now();
    AppThread thread([this] {
        return m_P.RequestCommand(kRequest, kAnswer, "Interrupted", std::string(), true, 1);
    });
    thread.Interrupt();
    thread.Join();
    EXPECT_GE(Since(start).count(), 990);
    EXPECT_FALSE(thread.threw);
    EXPECT_EQ(kNoAnswer, thread.result);
    EXPECT_TRUE(thread.stillInterrupted);
    EXPECT_EQ(Hex("52 65 63 76 49 50 43 10"), m_Peer.Receive(8));
    ExpectRequestWorks(m_Peer);
}

TEST_F(RegressionTest, InterruptedThreadClosesTheConnection) {
    Gate interrupted, looking, looked;
    GateOpener opener(looked);
    std::atomic<bool> hold{false};
    m_P.onIsPeerAlive = [&] {
        if (hold) {
            looking.Open();
            looked.Wait();
        }
        return true;
    };
    Connect();
    hold = true;
    ASSERT_TRUE(looking.Wait());
    AppThread thread([&] {
        interrupted.Wait();
        return m_P.CloseConnect();
    });
    thread.Interrupt();
    interrupted.Open();
    // The network thread stays inside its hook until teardown waits for it.
    EXPECT_TRUE(WaitFor([&] { return !TestProtocol::IsFree(m_P.m_ConnMutex); }));
    looked.Open();
    thread.Join();
    EXPECT_FALSE(thread.threw);
    EXPECT_EQ(0, thread.result);
    EXPECT_TRUE(thread.stillInterrupted);
    EXPECT_FALSE(m_P.IsConnected());
    EXPECT_FALSE(m_P.HasThreadGroup());
}

TEST_F(RegressionTest, InterruptedThreadOpensAgainThoughAHandlerRuns) {
    Gate entered, interrupted, replaced;
    GateOpener opener(replaced);
    m_P.onEvent = [&](unsigned char, const char*) {
        entered.Open();
        replaced.Wait();
        // The join that follows the connecting shows nowhere.
        std::this_thread::sleep_for(milliseconds(150));
        return 1;
    };
    Connect(false);
    m_Peer.Send(Hex(kBareEventFrame));
    ASSERT_TRUE(entered.Wait());
    m_P.onOpenSocketEnd = [&](int result) {
        replaced.Open();
        return result;
    };
    AppThread thread([&] {
        interrupted.Wait();
        return m_P.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, false, 10);
    });
    thread.Interrupt();
    interrupted.Open();
    thread.Join();
    EXPECT_FALSE(thread.threw);
    EXPECT_EQ(0, thread.result);
    EXPECT_TRUE(thread.stillInterrupted);
    ASSERT_TRUE(m_Peer.Accept());
    ExpectRequestWorks(m_Peer);
}

TEST_F(RegressionTest, InterruptedThreadEndsTheThreads) {
    Gate entered, interrupted;
    m_P.onEvent = [&](unsigned char, const char*) {
        entered.Open();
        EXPECT_TRUE(WaitFor([&] { return !m_P.IsConnected(); }));
        // The join that follows the closing shows nowhere.
        std::this_thread::sleep_for(milliseconds(150));
        return 1;
    };
    Connect(false);
    m_Peer.Send(Hex(kBareEventFrame));
    ASSERT_TRUE(entered.Wait());
    AppThread thread([&] {
        interrupted.Wait();
        m_P.EndThreads();
        return 0;
    });
    thread.Interrupt();
    interrupted.Open();
    thread.Join();
    EXPECT_FALSE(thread.threw);
    EXPECT_EQ(nullptr, m_P.m_pDispatcherThread);
}

// ---- Cancelled threads ----

/// A thread on memory of the test, which can be looked at when the thread is gone.
class ThreadOnOwnStack {
public:
    ThreadOnOwnStack()
        : m_pStack(static_cast<unsigned char*>(::mmap(nullptr,
                                                      kSize,
                                                      PROT_READ | PROT_WRITE,
                                                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK,
                                                      -1,
                                                      0))) {}
    ~ThreadOnOwnStack() { ::munmap(m_pStack, kSize); }
    ThreadOnOwnStack(const ThreadOnOwnStack&) = delete;
    ThreadOnOwnStack& operator=(const ThreadOnOwnStack&) = delete;

    bool Start(void* (*body)(void*), void* argument) {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        const bool started = pthread_attr_setstack(&attributes, m_pStack, kSize) == 0 &&
                             pthread_create(&m_Thread, &attributes, body, argument) == 0;
        pthread_attr_destroy(&attributes);
        return started;
    }
    void Cancel() { EXPECT_EQ(0, pthread_cancel(m_Thread)); }
    bool JoinCancelled() {
        void* result = nullptr;
        return pthread_join(m_Thread, &result) == 0 && result == PTHREAD_CANCELED;
    }
    /// Once it is joined.
    void Fill() { std::memset(m_pStack, kFill, kSize); }
    bool IsUntouched() const {
        return std::all_of(m_pStack, m_pStack + kSize,
                           [](unsigned char byte) { return byte == kFill; });
    }

private:
    static constexpr size_t kSize = 1024 * 1024;
    static constexpr unsigned char kFill = 0xA5;

    unsigned char* m_pStack;
    pthread_t m_Thread{};
};

void* RequestForLong(void* protocol) {
    static_cast<TestProtocol*>(protocol)->RequestCommand(kRequest, kAnswer, "Cancelled",
                                                         std::string(), true, 60);
    return nullptr;
}

TEST_F(RegressionTest, CancelledRequestLeavesNothingThatIsLookedAtLater) {
#ifdef SR_SANITIZED
    GTEST_SKIP() << "the sanitizers' records of a stack do not follow a cancelled thread";
#endif
    Connect();
    ThreadOnOwnStack thread;
    ASSERT_TRUE(thread.Start(RequestForLong, &m_P));
    ASSERT_TRUE(IsWaitingFor(kAnswer));
    EXPECT_EQ(Hex("52 65 63 76 49 50 43 10"), m_Peer.Receive(8));
    thread.Cancel();
    ASSERT_TRUE(thread.JoinCancelled());
    thread.Fill();
    EXPECT_EQ(0, m_P.m_nAnsCode);
    EXPECT_TRUE(TestProtocol::IsFree(m_P.m_SendMutex));
    EXPECT_TRUE(TestProtocol::IsFree(m_P.m_AnsWaitMutex));
    // A late answer, another command, the same command, and the end of the connection.
    m_Peer.Send(Hex("52 65 63 76 49 50 43 11"));
    ExpectRequestWorks(m_Peer);
    std::future<int> again = RequestAsync(kRequest, kAnswer, "Again", 10);
    EXPECT_EQ(Hex("52 65 63 76 49 50 43 10"), m_Peer.Receive(8));
    m_Peer.Send(Hex("52 65 63 76 49 50 43 11 01 02 03 04"));
    EXPECT_EQ(0, again.get());
    Connect();
    EXPECT_TRUE(thread.IsUntouched());
}

// ---- Lingering descriptors ----

class LingerTest : public RegressionTest {
protected:
    /// A connection to the peer with bytes on their way that the peer does not fetch.
    int Clogged() {
        const int sock = ConnectTo(m_Peer);
        EXPECT_TRUE(m_Peer.Accept());
        const std::string bytes(65536, 'y');
        pollfd room = {sock, POLLOUT, 0};
        while (::poll(&room, 1, 200) == 1) {
            const ssize_t sent =
                ::send(sock, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            m_nSent += static_cast<size_t>(std::max<ssize_t>(sent, 0));
        }
        return sock;
    }

    static void SetLinger(int sock, int seconds) {
        const linger option = {1, seconds};
        EXPECT_EQ(0, ::setsockopt(sock, SOL_SOCKET, SO_LINGER, &option, sizeof option));
    }

    void ExpectQuickClose(const std::function<int()>& close) {
        const Clock::time_point start = Clock::now();
        EXPECT_EQ(0, close());
        EXPECT_LT(Since(start), milliseconds(6000));
    }

    void ExpectEverySentByteThenTheEnd() {
        EXPECT_LT(0u, m_nSent);
        EXPECT_EQ(m_nSent, m_Peer.Receive(m_nSent).size());
        EXPECT_EQ(0, EndOfStream());
    }

    /// 0 for an orderly end, else errno.
    int EndOfStream() {
        EXPECT_TRUE(m_Peer.ClientClosed());
        char byte = 0;
        const ssize_t got = ::recv(m_Peer.Socket(), &byte, 1, MSG_DONTWAIT);
        EXPECT_GE(0, got);
        return got == 0 ? 0 : errno;
    }

    size_t m_nSent = 0;
};

TEST_F(LingerTest, SocketThatLingersClosesAtOnceAndLosesNoByte) {
    const int sock = Clogged();
    SetLinger(sock, 15);
    ThdSafeSocket socket(sock);
    ExpectQuickClose([&] { return socket.close(); });
    ExpectEverySentByteThenTheEnd();
}

TEST_F(LingerTest, AdoptedDescriptorThatLingersClosesAtOnceAndLosesNoByte) {
    const int sock = Clogged();
    SetLinger(sock, 15);
    ASSERT_EQ(0, m_P.InitSocket(sock, true));
    ExpectQuickClose([&] { return m_P.CloseConnect(); });
    ExpectEverySentByteThenTheEnd();
}

TEST_F(LingerTest, SocketThatLingersForNoTimeResets) {
    const int sock = ConnectTo(m_Peer);
    ASSERT_TRUE(m_Peer.Accept());
    SetLinger(sock, 0);
    ThdSafeSocket socket(sock);
    ExpectQuickClose([&] { return socket.close(); });
    EXPECT_EQ(ECONNRESET, EndOfStream());
}

TEST_F(LingerTest, AdoptedDescriptorThatLingersForNoTimeResets) {
    const int sock = ConnectTo(m_Peer);
    ASSERT_TRUE(m_Peer.Accept());
    SetLinger(sock, 0);
    ASSERT_EQ(0, m_P.InitSocket(sock, true));
    ExpectQuickClose([&] { return m_P.CloseConnect(); });
    EXPECT_EQ(ECONNRESET, EndOfStream());
}

// ---- Classes that open by themselves ----

class OwnOpening : public TestProtocol {
public:
    ~OwnOpening() override { EndThreads(); }

    std::function<int(const char* host, const Ports& ports, int sec)> onOpenSocket;

    int OpenSocket(const char* host, const Ports& ports, int sec) override {
        return onOpenSocket ? onOpenSocket(host, ports, sec)
                            : ProtocolBase::OpenSocket(host, ports, sec);
    }

    using ProtocolBase::m_nErrCode;
};

class OwnOpeningTest : public RegressionTest {
protected:
    OwnOpeningTest() {
        m_Own.SetLogger(&m_Log);
        m_Own.SetCmdPrefix("RecvIPC", 7);
    }

    /// Opens again while a handler waits inside CloseConnect for the lock that this holds. `open`
    /// runs once the handler has been let go.
    int ReConnectBesideAClosingHandler(const std::function<int(const Ports&)>& open) {
        Gate entered, mayClose;
        GateOpener opener(mayClose);
        std::atomic<int> closed{1};
        m_Own.onEvent = [&](unsigned char, const char*) {
            entered.Open();
            mayClose.Wait();
            closed = m_Own.CloseConnect();
            return 1;
        };
        EXPECT_EQ(0, m_Own.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, false, 10));
        EXPECT_TRUE(m_Peer.Accept());
        m_Peer.Send(Hex(kBareEventFrame));
        EXPECT_TRUE(entered.Wait());
        m_Own.onOpenSocket = [&](const char*, const Ports& ports, int) {
            // An opening that waited in vain would join the handler for ever.
            const bool letGo = WaitFor([&] { return closed == 0; });
            EXPECT_TRUE(letGo);
            return letGo ? open(ports) : -1;
        };
        OrderedMutex<LockRank::Connection>::scoped_lock lock(m_Own.m_ConnMutex);
        const int lines = m_Log.Count(kLogDebug, "CloseConnect ");
        mayClose.Open();
        EXPECT_TRUE(m_Log.WaitForLines(kLogDebug, "CloseConnect ", lines + 1));
        const int result = m_Own.ReConnect();
        EXPECT_EQ(0, closed);
        m_Own.onOpenSocket = nullptr;
        return result;
    }

    void ExpectOwnIsConnected() {
        EXPECT_TRUE(m_Own.IsConnected());
        ASSERT_TRUE(m_Peer.Accept());
        EXPECT_EQ(8, m_Own.AckCommand(0x40, "Ack", ""));
        EXPECT_EQ(Hex("52 65 63 76 49 50 43 40"), m_Peer.Receive(8));
    }

    OwnOpening m_Own;
};

TEST_F(OwnOpeningTest, HandlerThatClosesLetsAForwardingReConnectPass) {
    EXPECT_EQ(0, ReConnectBesideAClosingHandler([&](const Ports& ports) {
                  return m_Own.ProtocolBase::OpenSocket(m_Peer.Host(), ports, 10);
              }));
    ExpectOwnIsConnected();
}

TEST_F(OwnOpeningTest, HandlerThatClosesLetsAFailingReConnectPass) {
    EXPECT_EQ(-888, ReConnectBesideAClosingHandler([](const Ports&) { return -888; }));
    EXPECT_FALSE(m_Own.IsConnected());
    EXPECT_EQ(0, m_Own.CloseConnect());
}

TEST_F(OwnOpeningTest, HandlerThatClosesLetsAReConnectPassThatFillsTheSocketItself) {
    EXPECT_EQ(0, ReConnectBesideAClosingHandler([&](const Ports&) {
                  m_Own.m_Socket = ConnectTo(m_Peer);
                  return 0;
              }));
    ExpectOwnIsConnected();
}

TEST_F(OwnOpeningTest, SocketThatOpenSocketFillsItselfIsRead) {
    m_Own.onOpenSocket = [&](const char*, const Ports&, int) {
        m_Own.m_Socket = ConnectTo(m_Peer);
        return 0;
    };
    ASSERT_EQ(0, m_Own.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, true, 10));
    ASSERT_TRUE(m_Peer.Accept());
    m_Peer.Send(Hex("52 65 63 76 49 50 43 25 02 41 42"));
    EXPECT_TRUE(WaitFor([&] { return m_Own.QueuedEvents() == 1; }, milliseconds(5000)));
}

TEST_F(OwnOpeningTest, CodeThatOpenSocketOnlyStoresIsReturned) {
    // An earlier failure of this thread is none of this step.
    EXPECT_EQ(-6528004, m_Own.OpenConnect(m_Peer.Host(), {}, true, 1));
    m_Own.onOpenSocket = [&](const char*, const Ports&, int) {
        m_Own.m_nErrCode = -777;
        return -1;
    };
    EXPECT_EQ(-777, m_Own.OpenConnectImpl(m_Peer.Host(), {m_Peer.Port()}, true, 1));
    EXPECT_EQ(-777, m_Own.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, true, 1));
}

TEST_F(OwnOpeningTest, CodeThatOpenSocketRecordsIsReturnedThoughItIsClearedMeanwhile) {
    m_Own.onOpenSocket = [&](const char*, const Ports&, int) {
        m_Own.SetErrorAt(-778, "", "", "Own.cpp", 1);
        std::thread([&] { m_Own.SetErrorAt(0, "", "", "Elsewhere.cpp", 1); }).join();
        return -1;
    };
    EXPECT_EQ(-778, m_Own.OpenConnectImpl(m_Peer.Host(), {m_Peer.Port()}, true, 1));
    EXPECT_EQ(0, m_Own.GetErrorCode());
}

TEST_F(OwnOpeningTest, CodeThatOpenSocketRecordsIsReturnedThoughAnotherFailsMeanwhile) {
    m_Own.onOpenSocket = [&](const char*, const Ports&, int) {
        m_Own.SetErrorAt(-778, "", "", "Own.cpp", 1);
        std::thread([&] { m_Own.SetErrorAt(-779, "", "", "Elsewhere.cpp", 1); }).join();
        return -1;
    };
    EXPECT_EQ(-778, m_Own.OpenConnectImpl(m_Peer.Host(), {m_Peer.Port()}, true, 1));
}

// ---- Senders without end ----

TEST_F(RegressionTest, SendersInALoopOnAClosedConnectionDoNotKeepOpenConnectOut) {
    std::atomic<bool> stop{false};
    // A send to no descriptor takes its whole budget of 5 s, with the lock held.
    std::thread acks([&] {
        while (!stop)
            m_P.AckCommand(0x40, "Loop", std::string());
    });
    EXPECT_TRUE(m_Log.WaitForLines(kLogInfo, "==> AckCommand"));
    const Clock::time_point start = Clock::now();
    std::future<int> opened = std::async(std::launch::async, [&] {
        return m_P.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, true, 10);
    });
    EXPECT_TRUE(WaitFor([&] { return m_P.handShakes > 0; }));
    std::thread requests([&] {
        while (!stop)
            m_P.RequestCommand(kRequest, kAnswer, "Loop", std::string(), true, 1);
    });
    EXPECT_TRUE(opened.wait_for(milliseconds(14000)) == std::future_status::ready);
    const milliseconds took = Since(start);
    stop = true;
    EXPECT_EQ(0, opened.get());
    EXPECT_LT(took, milliseconds(14000));
    requests.join();
    acks.join();
}

// ---- Handlers of a connection that has been replaced ----

class ReplacedTest : public RegressionTest {
protected:
    /// What a handler's calls give that it makes once its connection has been replaced; `record`
    /// is recorded by then.
    void CallAfterReplacement(int record) {
        Gate entered, replaced;
        GateOpener opener(replaced);
        m_P.onEvent = [&](unsigned char, const char*) {
            entered.Open();
            replaced.Wait();
            m_nRequest = m_P.RequestCommand(kRequest, kAnswer, "Late", std::string(), true, 5);
            m_nAck = m_P.AckCommand(0x40, "Late", "abc");
            m_nData = m_P.SendCommandData("abc", 3, 0, true);
            return 1;
        };
        Connect(false);
        m_Peer.Send(Hex(kBareEventFrame));
        ASSERT_TRUE(entered.Wait());
        ScriptedPeer next(m_Peer.Address(), 0);
        // The new connection stands; what is left of opening is to wait for the handler.
        m_P.onOpenSocketEnd = [&](int result) {
            EXPECT_TRUE(next.Accept());
            if (record != 0)
                m_P.SetErrorAt(record, "", "", "Elsewhere.cpp", 1);
            replaced.Open();
            return result;
        };
        std::future<int> opened = std::async(std::launch::async, [&] {
            return m_P.OpenConnect(next.Host(), {next.Port()}, false, 10);
        });
        EXPECT_EQ(0, opened.get());
        EXPECT_TRUE(m_P.IsConnected());
        EXPECT_EQ("", next.ReceiveAllWithin(milliseconds(200)));
        ExpectRequestWorks(next);
    }

    std::atomic<int> m_nRequest{1};
    std::atomic<int> m_nAck{1};
    std::atomic<int> m_nData{1};
};

TEST_F(ReplacedTest, HandlerOfTheFirstConnectionSendsNothingIntoTheNext) {
    CallAfterReplacement(0);
    EXPECT_EQ(kNoAnswer, m_nRequest);
    EXPECT_EQ(0, m_nAck);
    EXPECT_EQ(0, m_nData);
}

TEST_F(ReplacedTest, HandlerOfTheFirstConnectionGetsTheErrorThatStandsRecorded) {
    CallAfterReplacement(-778);
    EXPECT_EQ(-778, m_nRequest);
    EXPECT_EQ(0, m_nAck);
    EXPECT_EQ(0, m_nData);
}

// ---- Close hook ----

TEST_F(RegressionTest, ReConnectInACloseHookThatHasClosedFindsNoHost) {
    std::atomic<int> closed{1}, result{1};
    m_P.onConnectClose = [&] {
        closed = m_P.CloseConnect();
        result = m_P.ReConnect();
    };
    Connect();
    m_Peer.Close();
    EXPECT_TRUE(WaitFor([&] { return result != 1; }));
    EXPECT_EQ(0, closed);
    EXPECT_EQ(kInitObject, result);
    ExpectError(kInitObject, "m_strHost", "", "Failed to init object: m_strHost", 0);
    EXPECT_EQ(1, CountLines(kLogDebug, WithPlace("ReConnect ", -1)));
    EXPECT_FALSE(m_P.IsConnected());
}

// ---- Floods ----

class FloodTest : public RegressionTest {
protected:
    // A line for each byte would fill the memory.
    FloodTest() { m_P.SetLogger(&m_Silent); }
    ~FloodTest() override {
        m_bStop = true;
        if (m_Sender.joinable())
            m_Sender.join();
        EndProtocol();  // it writes to the logger
    }

    /// The peer sends bytes that belong to no frame until the test ends.
    void Flood() {
        m_Sender = std::thread([this, sock = m_Peer.Socket()] {
            const std::string garbage(4096, 'x');
            pollfd room = {sock, POLLOUT, 0};
            while (!m_bStop) {
                if (::send(sock, garbage.data(), garbage.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0)
                    ::poll(&room, 1, 10);
                else
                    ++m_nPieces;
            }
        });
        // More than the pieces that the kernel keeps: the network thread is in the midst of it.
        EXPECT_TRUE(WaitFor([this] { return m_nPieces > 8; }));
        EXPECT_TRUE(WaitFor([this] { return !TestProtocol::IsFree(m_P.m_RecvMutex); }));
    }

    Logger m_Silent;
    std::atomic<bool> m_bStop{false};
    std::atomic<int> m_nPieces{0};
    std::thread m_Sender;
};

TEST_F(FloodTest, GarbageDoesNotKeepSetCmdPrefixOut) {
    Connect();
    Flood();
    std::future<int> set = std::async(std::launch::async, [this] {
        m_P.SetCmdPrefix("RecvIPD", 7);
        return 0;
    });
    EXPECT_TRUE(IsReadyWithin(set, milliseconds(5000)));
    m_bStop = true;
    EXPECT_EQ(0, set.get());
}

TEST_F(FloodTest, GarbageDoesNotKeepIsPeerAliveFromBeingAsked) {
    Connect();
    Flood();
    const int before = m_P.peerAliveLooks;
    EXPECT_TRUE(WaitFor([&] { return m_P.peerAliveLooks >= before + 10; }, milliseconds(5000)));
}

// ---- A hook that lowers the running flag ----

class LoweredTest : public RegressionTest {
protected:
    LoweredTest() {
        m_P.onPeerAlive = [this] { m_P.m_bRunning = false; };
    }

    void ExpectFrameIsFinished() {
        m_Peer.Send(Hex("52 65 63 76 49 50 43 25 02 41 42"));
        EXPECT_TRUE(m_Log.WaitForLines(kLogDebug, "NetworkThread end"));
        const std::vector<TestProtocol::Event> events = m_P.TakeEvents();
        ASSERT_EQ(1u, events.size());
        EXPECT_EQ(TestProtocol::Event(0x25, Hex("02 41 42")), events[0]);
        EXPECT_EQ(0, m_P.connectCloses);
    }
};

TEST_F(LoweredTest, FrameOfAnOpenedConnectionIsFinished) {
    Connect();
    ExpectFrameIsFinished();
}

TEST_F(LoweredTest, FrameOfAnAdoptedConnectionIsFinished) {
    const int sock = ConnectTo(m_Peer);
    ASSERT_TRUE(m_Peer.Accept());
    ASSERT_EQ(0, m_P.InitSocket(sock, true));
    ExpectFrameIsFinished();
}

// ---- Ended objects ----

TEST_F(RegressionTest, NothingOpensOnceTheThreadsHaveEnded) {
    Connect(false);
    m_P.EndThreads();
    EXPECT_EQ(nullptr, m_P.m_pDispatcherThread);
    EXPECT_FALSE(m_P.HasThreadGroup());

    const Clock::time_point start = Clock::now();
    EXPECT_EQ(kNoAnswer, m_P.RequestCommand(kRequest, kAnswer, "Late", std::string(), true, 30));
    EXPECT_LT(Since(start), Stretched(milliseconds(2000)));

    const int before = OpenDescriptors();
    EXPECT_EQ(kStillClosing, m_P.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, false, 10));
    EXPECT_EQ(kStillClosing, m_P.GetErrorCode());
    EXPECT_EQ(before, OpenDescriptors());
    EXPECT_FALSE(m_P.IsConnected());
    EXPECT_FALSE(m_P.m_bRunning);
    EXPECT_EQ(nullptr, m_P.m_pDispatcherThread);
    EXPECT_FALSE(m_P.HasThreadGroup());
    m_P.EndThreads();
}

TEST_F(RegressionTest, RequestsThatWaitEndWithTheThreads) {
    Connect(false);
    std::future<int> request = RequestAsync(kRequest, kAnswer, "Waiting", 30);
    std::future<int> second = RequestAsync(kRequest, kAnswer, "Waiting", 30);
    EXPECT_EQ(16u, m_Peer.Receive(16).size());
    EXPECT_TRUE(IsWaitingFor(kAnswer));
    const Clock::time_point start = Clock::now();
    m_P.EndThreads();
    EXPECT_LT(Since(start), Stretched(milliseconds(9000)));
    EXPECT_TRUE(IsReadyWithin(request, milliseconds(4000)));
    EXPECT_TRUE(IsReadyWithin(second, milliseconds(4000)));
    EXPECT_EQ(kNoAnswer, request.get());
    EXPECT_EQ(kNoAnswer, second.get());
    EXPECT_EQ(0, m_P.m_nAnsCode);
}

TEST_F(RegressionTest, OpeningThatWaitsEndsWithTheThreads) {
    m_P.onHandShake = [](int) { return -1; };
    const int before = OpenDescriptors();
    std::future<int> opened = std::async(std::launch::async, [this] {
        return m_P.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, false, 45);
    });
    EXPECT_TRUE(WaitFor([this] { return m_P.handShakes > 0; }));
    const Clock::time_point start = Clock::now();
    m_P.EndThreads();
    EXPECT_LT(Since(start), Stretched(milliseconds(9000)));
    EXPECT_TRUE(IsReadyWithin(opened, milliseconds(4000)));
    EXPECT_EQ(kHandShakeFailed, opened.get());
    EXPECT_EQ(before, OpenDescriptors());
}

// ---- Signals ----

/// The signals that the calling thread blocks, as the kernel has them.
unsigned long long BlockedSignals() {
    std::ifstream status("/proc/thread-self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 7, "SigBlk:") == 0)
            return std::strtoull(line.c_str() + 7, nullptr, 16);
    }
    ADD_FAILURE() << "no SigBlk line";
    return 0;
}

bool IsBlocked(unsigned long long signals, int number) {
    return (signals >> (number - 1) & 1) != 0;
}

TEST_F(RegressionTest, ThreadsOfTheObjectBlockTheApplicationsSignals) {
    std::mutex mutex;
    std::map<std::string, unsigned long long> seen;
    const auto look = [&](const char* thread) {
        const unsigned long long signals = BlockedSignals();
        const std::lock_guard<std::mutex> lock(mutex);
        seen[thread] = signals;
    };
    m_P.onPeerAlive = [&] { look("network"); };
    m_P.onEvent = [&](unsigned char, const char*) {
        look("dispatcher");
        return 1;
    };
    m_P.onConnectClose = [&] { look("close"); };

    // One signal blocked by the application, the others not.
    sigset_t own, saved;
    sigemptyset(&own);
    sigaddset(&own, SIGUSR2);
    ASSERT_EQ(0, pthread_sigmask(SIG_SETMASK, &own, &saved));
    const unsigned long long before = BlockedSignals();
    EXPECT_TRUE(IsBlocked(before, SIGUSR2));
    EXPECT_FALSE(IsBlocked(before, SIGTERM));
    Connect(false);
    EXPECT_EQ(before, BlockedSignals());
    m_Peer.Send(Hex(kBareEventFrame));
    const std::string handled = "HandleRetVal 26 1";
    EXPECT_TRUE(WaitFor([&] {
        const std::vector<std::string> notes = m_P.Notes();
        return std::find(notes.begin(), notes.end(), handled) != notes.end();
    }));
    m_Peer.Close();
    EXPECT_TRUE(WaitFor([&] {
        const std::lock_guard<std::mutex> lock(mutex);
        return seen.count("close") == 1;
    }));
    m_P.EndThreads();
    EXPECT_EQ(before, BlockedSignals());
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);

    ASSERT_EQ(3u, seen.size());
    for (const auto& thread : seen) {
        SCOPED_TRACE(thread.first);
        for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGALRM, SIGCHLD, SIGUSR1, SIGUSR2})
            EXPECT_TRUE(IsBlocked(thread.second, number)) << number;
        for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
            EXPECT_FALSE(IsBlocked(thread.second, number)) << number;
    }
}

TEST_F(RegressionTest, AdoptingAndOpeningAgainLeaveTheApplicationsSignalsAlone) {
    const unsigned long long before = BlockedSignals();
    const int sock = ConnectTo(m_Peer);
    ASSERT_TRUE(m_Peer.Accept());
    ASSERT_EQ(0, m_P.InitSocket(sock, false));
    EXPECT_EQ(before, BlockedSignals());
    Connect(false);
    EXPECT_EQ(0, m_P.ReConnect());
    EXPECT_EQ(before, BlockedSignals());
    m_P.CloseConnect();
    Interposed().threadStarts = [] { return false; };
    EXPECT_EQ(-6527001, m_P.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, false, 10));
    EXPECT_EQ(before, BlockedSignals());
}

}  // namespace
}  // namespace sr_test
