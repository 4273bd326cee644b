#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>

#include "tests/support/Emulation.h"
#include "tests/wire/ProtocolFixture.h"

namespace sr_test {
namespace {

using Ports = std::vector<unsigned short>;

constexpr int kReentry = -6527002;
constexpr int kInitObject = -6527004;
constexpr int kNotConnected = -6528001;
constexpr int kNoPorts = -6528004;
constexpr int kStillClosing = -6528005;
constexpr int kHandShakeFailed = -6528006;

const char kStillClosingText[] =
    "Previous network thread is still busy at closing itself, please wait a moment then retry.";
const char kHandShakeText[] =
    "It's OK to build connection, but server handshake was failed. This problem is probably caused "
    "by anti-virus or firewall software.";

/// A port of the address that refuses: bound, so that nobody else gets it, and not listening.
class RefusingPort {
public:
    explicit RefusingPort(const std::string& address)
        : m_Socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in name = {};
        name.sin_family = AF_INET;
        name.sin_addr.s_addr = ::inet_addr(address.c_str());
        socklen_t size = sizeof name;
        ::bind(m_Socket, reinterpret_cast<sockaddr*>(&name), size);
        ::getsockname(m_Socket, reinterpret_cast<sockaddr*>(&name), &size);
        m_Port = ntohs(name.sin_port);
    }
    ~RefusingPort() { ::close(m_Socket); }
    RefusingPort(const RefusingPort&) = delete;
    RefusingPort& operator=(const RefusingPort&) = delete;

    unsigned short Port() const { return m_Port; }

protected:
    int m_Socket;
    unsigned short m_Port;
};

/// A port that neither takes nor refuses a connection: its backlog is full.
class StuckPort : public RefusingPort {
public:
    explicit StuckPort(const std::string& address) : RefusingPort(address) {
        ::listen(m_Socket, 0);
        sockaddr_in name = {};
        name.sin_family = AF_INET;
        name.sin_addr.s_addr = ::inet_addr(address.c_str());
        name.sin_port = htons(m_Port);
        for (int& filler : m_Fillers) {
            filler = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            ::connect(filler, reinterpret_cast<sockaddr*>(&name), sizeof name);
            pollfd ready = {filler, POLLOUT, 0};
            ::poll(&ready, 1, 100);
        }
    }
    ~StuckPort() {
        for (const int filler : m_Fillers)
            ::close(filler);
    }

private:
    int m_Fillers[3];
};

int OptionOf(int sock, int level, int option) {
    int value = -1;
    socklen_t size = sizeof value;
    EXPECT_EQ(0, ::getsockopt(sock, level, option, &value, &size));
    return value;
}

long SecondsOf(int sock, int option) {
    timeval value = {-1, -1};
    socklen_t size = sizeof value;
    EXPECT_EQ(0, ::getsockopt(sock, SOL_SOCKET, option, &value, &size));
    EXPECT_EQ(0, value.tv_usec);
    return static_cast<long>(value.tv_sec);
}

bool IsBlocking(int sock) {
    return (::fcntl(sock, F_GETFL) & O_NONBLOCK) == 0;
}

/// A connected pair of TCP sockets.
int ConnectTo(const ScriptedPeer& peer) {
    const int sock = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in name = {};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = ::inet_addr(peer.Host());
    name.sin_port = htons(peer.Port());
    EXPECT_EQ(0, ::connect(sock, reinterpret_cast<sockaddr*>(&name), sizeof name));
    return sock;
}

/// A handshake that looks whether the connection stands, as the hook's contract asks for.
int LooksAlive(int sock) {
    return OptionOf(sock, SOL_SOCKET, SO_ERROR) == 0 ? 0 : -1;
}

class ConnectionTest : public ProtocolTest {
protected:
    int Open(const Ports& ports, int timeoutSec = 10) {
        return m_P.OpenConnect(m_Peer.Host(), ports, true, timeoutSec);
    }

    /// Nothing is left behind by an attempt that failed.
    void ExpectNothingOpen(int descriptorsBefore) {
        EXPECT_EQ(-1, m_P.GetSocket());
        EXPECT_FALSE(m_P.IsConnected());
        EXPECT_FALSE(m_P.m_bRunning);
        EXPECT_EQ("", m_P.Host());
        EXPECT_EQ(descriptorsBefore, OpenDescriptors());
    }
};

// ---- Opening ----

TEST_F(ConnectionTest, SuccessIsLoggedStepByStep) {
    ASSERT_EQ(0, m_P.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, true, 7));
    const int sock = m_P.GetSocket();
    EXPECT_EQ(1, CountLines(kLogDebug, WithPlace("CloseConnect 0 0", -1)));
    EXPECT_EQ(1,
              CountLines(kLogDebug, Text("OpenConnect %s 1 1 7 this:%p", m_Peer.Host(), This())));
    EXPECT_EQ(1, CountLines(kLogDebug, Text("OpenSocket %s 1 7 this:%p", m_Peer.Host(), This())));
    EXPECT_EQ(
        1, CountLines(kLogInfo, WithPlace(Text("OpenSocket use port# %hu", m_Peer.Port()), sock)));
}

TEST_F(ConnectionTest, LogNamesPortCountAndFlag) {
    RefusingPort refusing(m_Peer.Address());
    m_P.onHandShake = LooksAlive;
    ASSERT_EQ(0, m_P.OpenConnect(m_Peer.Host(), {refusing.Port(), m_Peer.Port()}, false, 8));
    EXPECT_EQ(1,
              CountLines(kLogDebug, Text("OpenConnect %s 2 0 8 this:%p", m_Peer.Host(), This())));
    EXPECT_EQ(1, CountLines(kLogDebug, Text("OpenSocket %s 2 8 this:%p", m_Peer.Host(), This())));
}

TEST_F(ConnectionTest, SuccessRemembersItsSettingsAndClearsTheRecord) {
    m_P.SetErrorAt(kNoPorts, "one", "two", "Elsewhere.cpp", 77);
    m_P.m_bClosing = true;
    ASSERT_EQ(0, m_P.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, true, 7));
    EXPECT_EQ(m_Peer.Address(), m_P.Host());
    EXPECT_EQ(Ports({m_Peer.Port()}), m_P.m_vecPort);
    EXPECT_EQ(7, m_P.m_nConnectTimeout);
    EXPECT_TRUE(m_P.m_bNoDispatcher);
    EXPECT_FALSE(m_P.m_bClosing);
    EXPECT_TRUE(m_P.m_bRunning);
    EXPECT_TRUE(m_P.IsConnected());
    EXPECT_EQ(0, m_P.GetErrorCode());
    EXPECT_EQ(std::make_pair(std::string(), std::string()), m_P.ErrorArguments());
}

TEST_F(ConnectionTest, OpenSocketAloneStartsNoThread) {
    ASSERT_EQ(0, m_P.OpenSocket(m_Peer.Host(), {m_Peer.Port()}, 10));
    EXPECT_TRUE(m_P.IsConnected());
    EXPECT_FALSE(m_P.m_bRunning);
    EXPECT_FALSE(m_P.HasThreadGroup());
    EXPECT_TRUE(m_Peer.Accept());
}

TEST_F(ConnectionTest, OpenConnectClosesTheConnectionBefore) {
    Connect();
    ScriptedPeer next(m_Peer.Address(), 0);
    EXPECT_EQ(0, m_P.OpenConnect(next.Host(), {next.Port()}, true, 10));
    EXPECT_TRUE(next.Accept());
    EXPECT_TRUE(m_Peer.ClientClosed());
    EXPECT_EQ(2, m_P.closeConnects);
}

TEST_F(ConnectionTest, HandShakeGetsTheCandidateStillNonBlocking) {
    std::atomic<int> sock{-1};
    std::atomic<bool> blocking{true};
    m_P.onHandShake = [&](int fd) {
        sock = fd;
        blocking = IsBlocking(fd);
        return 0;
    };
    ASSERT_EQ(0, Open({m_Peer.Port()}));
    EXPECT_EQ(m_P.GetSocket(), sock);
    EXPECT_FALSE(blocking);
    EXPECT_TRUE(IsBlocking(m_P.GetSocket()));
    EXPECT_EQ(1, m_P.handShakes);
}

TEST_F(ConnectionTest, PositiveHandShakePasses) {
    m_P.onHandShake = [](int) { return 4711; };
    EXPECT_EQ(0, Open({m_Peer.Port()}));
}

TEST_F(ConnectionTest, FailedHandShakeIsTriedAgainUntilItPasses) {
    m_P.onHandShake = [this](int) { return m_P.handShakes < 3 ? -1 : 0; };
    EXPECT_EQ(0, Open({m_Peer.Port()}));
    EXPECT_EQ(3, m_P.handShakes);
    EXPECT_EQ(0, m_P.GetErrorCode());
}

// ---- Several ports ----

TEST_F(ConnectionTest, OnlyListenerWinsAndTheOthersAreClosed) {
    RefusingPort refusing(m_Peer.Address());
    m_P.onHandShake = LooksAlive;
    const int before = OpenDescriptors();
    ASSERT_EQ(0, Open({refusing.Port(), m_Peer.Port()}));
    EXPECT_EQ(before + 1, OpenDescriptors());
    EXPECT_TRUE(m_Peer.Accept());
    EXPECT_EQ(1, CountLines(kLogInfo, WithPlace(Text("OpenSocket use port# %hu", m_Peer.Port()),
                                                m_P.GetSocket())));
    EXPECT_EQ(Ports({refusing.Port(), m_Peer.Port()}), m_P.m_vecPort);
}

TEST_F(ConnectionTest, FirstListenerInOrderWinsAndTheOtherIsClosed) {
    ScriptedPeer second(m_Peer.Address(), 0);
    const int before = OpenDescriptors();
    ASSERT_EQ(0, Open({m_Peer.Port(), second.Port()}));
    EXPECT_EQ(before + 1, OpenDescriptors());
    EXPECT_EQ(1, m_Log.Count(kLogInfo, Text("OpenSocket use port# %hu sock:", m_Peer.Port())));
    EXPECT_EQ(1, m_Log.Count(kLogInfo, "OpenSocket use port#"));
    EXPECT_TRUE(m_Peer.Accept());
    EXPECT_TRUE(second.Accept());
    EXPECT_TRUE(second.ClientClosed());
}

TEST_F(ConnectionTest, ListenerBehindOneThatNeverAnswersWins) {
    StuckPort stuck(m_Peer.Address());
    const int before = OpenDescriptors();
    ASSERT_EQ(0, Open({stuck.Port(), m_Peer.Port()}));
    EXPECT_EQ(before + 1, OpenDescriptors());
    EXPECT_TRUE(m_Peer.Accept());
}

TEST_F(ConnectionTest, RefusedPortWinsWithoutAHandShakeThatLooks) {
    RefusingPort refusing(m_Peer.Address());
    m_P.onNetworkThread = [] {};
    ASSERT_EQ(0, Open({refusing.Port(), m_Peer.Port()}));
    EXPECT_EQ(1, m_Log.Count(kLogInfo, Text("OpenSocket use port# %hu sock:", refusing.Port())));
    EXPECT_EQ(1, m_P.handShakes);
}

TEST_F(ConnectionTest, PortsAreTried30MillisecondsApart) {
    const unsigned short port = m_Peer.Port();
    const Clock::time_point start = Clock::now();
    ASSERT_EQ(0, Open({port, port, port, port, port, port}));
    EXPECT_GE(Since(start).count(), 5 * 30);
}

TEST_F(ConnectionTest, HandShakesAreTriedInPortOrder) {
    ScriptedPeer second(m_Peer.Address(), 0);
    std::vector<int> ports;
    m_P.onHandShake = [&](int sock) {
        sockaddr_in name = {};
        socklen_t size = sizeof name;
        ::getpeername(sock, reinterpret_cast<sockaddr*>(&name), &size);
        ports.push_back(ntohs(name.sin_port));
        return ports.size() < 4 ? -1 : 0;
    };
    ASSERT_EQ(0, Open({m_Peer.Port(), second.Port()}));
    EXPECT_EQ(std::vector<int>({m_Peer.Port(), second.Port(), m_Peer.Port(), second.Port()}),
              ports);
}

// ---- Failing ----

TEST_F(ConnectionTest, EmptyPortVectorIsRefused) {
    const int before = OpenDescriptors();
    EXPECT_EQ(kNoPorts, Open({}));
    ExpectError(kNoPorts, "", "",
                "It's invliad to specify empty port number vector (vecPort) to OpenConnect().", 0);
    ExpectNothingOpen(before);
}

TEST_F(ConnectionTest, OpenSocketFromInsideAPumpIsRefused) {
    m_P.m_bFuncPending = true;
    EXPECT_EQ(kReentry, m_P.OpenSocket(m_Peer.Host(), {m_Peer.Port()}, 10));
    m_P.m_bFuncPending = false;
    ExpectError(kReentry, "ProtocolBase::OpenSocket", "",
                "Function reentry is not allowed: ProtocolBase::OpenSocket", 0);
    EXPECT_FALSE(m_P.IsConnected());
}

TEST_F(ConnectionTest, ReentryIsRefusedBeforeAnyOtherCheck) {
    Connect();
    m_P.m_bFuncPending = true;
    EXPECT_EQ(kReentry, m_P.OpenSocket(m_Peer.Host(), {}, 10));
    m_P.m_bFuncPending = false;
}

TEST_F(ConnectionTest, OpenSocketOnAHeldDescriptorIsRefused) {
    Connect();
    EXPECT_EQ(kStillClosing, m_P.OpenSocket(m_Peer.Host(), {}, 10));
    ExpectError(kStillClosing, "", "", kStillClosingText, 0);
    EXPECT_EQ(m_nSock, m_P.GetSocket());
}

TEST_F(ConnectionTest, OpenConnectImplClosesNothing) {
    Connect();
    EXPECT_EQ(kStillClosing, m_P.OpenConnectImpl(m_Peer.Host(), {m_Peer.Port()}, true, 10));
    EXPECT_EQ(m_nSock, m_P.GetSocket());
    EXPECT_EQ(1, m_P.closeConnects);
}

TEST_F(ConnectionTest, SocketThatCannotBeMadeGivesTheSystemsErrorAndClosesTheOthers) {
    int sockets = 0;
    const int before = OpenDescriptors();
    Interposed().socketError = [&] { return ++sockets == 3 ? EMFILE : 0; };
    const unsigned short port = m_Peer.Port();
    EXPECT_EQ(-EMFILE, Open({port, port, port, port}));
    Interposed().socketError = nullptr;
    EXPECT_EQ(3, sockets);
    ExpectError(-EMFILE, "", "", "Too many open files", 0);
    ExpectNothingOpen(before);
    EXPECT_EQ(0, m_P.handShakes);
}

TEST_F(ConnectionTest, FailedHandShakesTakeTheFullTimeAndHaveTheirOwnCode) {
    m_P.onHandShake = [](int) { return -1; };
    const int before = OpenDescriptors();
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(kHandShakeFailed, Open({m_Peer.Port()}, 1));
    EXPECT_GE(Since(start).count(), 990);
    EXPECT_LT(Since(start), Stretched(milliseconds(5000)));
    EXPECT_LT(1, m_P.handShakes);
    ExpectError(kHandShakeFailed, "", "", kHandShakeText, 0);
    ExpectNothingOpen(before);
}

TEST_F(ConnectionTest, RefusedPortsWithAHandShakeThatLooksAreFailedHandShakes) {
    RefusingPort refusing(m_Peer.Address());
    m_P.onHandShake = [](int) { return -1; };
    const int before = OpenDescriptors();
    EXPECT_EQ(kHandShakeFailed, Open({refusing.Port()}, 1));
    ExpectNothingOpen(before);
}

TEST_F(ConnectionTest, PortsThatNeverAnswerTakeTheFullTimeAndAreNamed) {
    StuckPort stuck(m_Peer.Address());
    const int before = OpenDescriptors();
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(kNotConnected, Open({stuck.Port(), stuck.Port()}, 1));
    EXPECT_GE(Since(start).count(), 990);
    EXPECT_LT(Since(start), Stretched(milliseconds(5000)));
    const std::string ports = Text("%d %d ", stuck.Port(), stuck.Port());
    ExpectError(kNotConnected, m_Peer.Address(), ports,
                "No TCP connection could be built to IP:" + m_Peer.Address() + " Port:" + ports, 0);
    EXPECT_EQ(0, m_P.handShakes);
    ExpectNothingOpen(before);
}

TEST_F(ConnectionTest, TimeOutZeroTriesNothingThoughThePeerListens) {
    const int before = OpenDescriptors();
    EXPECT_EQ(kNotConnected, Open({m_Peer.Port()}, 0));
    const std::string port = Text("%d ", m_Peer.Port());
    ExpectError(kNotConnected, m_Peer.Address(), port,
                "No TCP connection could be built to IP:" + m_Peer.Address() + " Port:" + port, 0);
    EXPECT_EQ(0, m_P.handShakes);
    ExpectNothingOpen(before);
}

TEST_F(ConnectionTest, FailureKeepsTheSettingsOfTheConnectionBefore) {
    ASSERT_EQ(0, m_P.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, true, 7));
    EXPECT_EQ(kNotConnected, Open({1, 2}, 0));
    EXPECT_EQ(7, m_P.m_nConnectTimeout);
    EXPECT_EQ(Ports({m_Peer.Port()}), m_P.m_vecPort);
    EXPECT_EQ("", m_P.Host());
}

TEST_F(ConnectionTest, CloseConnectAbortsAConnectThatWaits) {
    StuckPort stuck(m_Peer.Address());
    const int before = OpenDescriptors();
    const Clock::time_point start = Clock::now();
    std::future<int> opened =
        std::async(std::launch::async, [&] { return Open({stuck.Port()}, 60); });
    EXPECT_TRUE(m_Log.WaitForLines(kLogDebug, "OpenSocket "));
    // The loop clears the flag when it begins, so closing must come after that.
    EXPECT_TRUE(WaitFor([&] { return OpenDescriptors() > before && !m_P.m_bClosing; }));
    m_P.ProtocolBase::CloseConnect();
    EXPECT_TRUE(WaitFor([&] {
        if (opened.wait_for(std::chrono::seconds(0)) == std::future_status::ready)
            return true;
        m_P.ProtocolBase::CloseConnect();
        return false;
    }));
    EXPECT_EQ(kNotConnected, opened.get());
    EXPECT_LT(Since(start), Stretched(milliseconds(20000)));
    ExpectNothingOpen(before);
}

// ---- A failure returns its own code ----

TEST_F(ConnectionTest, FailureOfOpenSocketIsReturnedThoughAnotherStepSucceedsMeanwhile) {
    m_P.onOpenSocketEnd = [this](int result) {
        std::thread([this] { m_P.SetErrorAt(0, "", "", "Elsewhere.cpp", 1); }).join();
        return result;
    };
    EXPECT_EQ(kNoPorts, Open({}));
    EXPECT_EQ(0, m_P.GetErrorCode());
}

TEST_F(ConnectionTest, CodeThatOpenSocketRecordedIsReturnedWhateverItsResult) {
    m_P.onOpenSocketEnd = [](int) { return -1; };
    EXPECT_EQ(kNoPorts, Open({}));
}

TEST_F(ConnectionTest, ThreadThatCannotStartIsReturnedThoughAnotherStepSucceedsMeanwhile) {
    Interposed().threadStarts = [] { return false; };
    m_P.onCloseConnect = [this] {
        std::thread([this] { m_P.SetErrorAt(0, "", "", "Elsewhere.cpp", 1); }).join();
        return m_P.ProtocolBase::CloseConnect();
    };
    EXPECT_EQ(-6527001, m_P.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, false, 10));
}

// ---- No error is lost at the start ----

TEST_F(ConnectionTest, RefusedPortAlwaysShowsInTheErrorCode) {
    m_Peer.StopListening();
    for (int round = 0; round < 60 && !HasFailure(); ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(0, Open({m_Peer.Port()}));
        EXPECT_TRUE(HasError(-ECONNREFUSED));
        EXPECT_TRUE(WaitFor([&] { return !m_P.IsConnected(); }));
        EXPECT_EQ(-ECONNREFUSED, m_P.GetErrorCode());
        EXPECT_EQ(471, m_P.ErrorLine());
    }
}

TEST_F(ConnectionTest, RefusedPortShowsThoughTheStartOfTheThreadsIsSlow) {
    m_Peer.StopListening();
    // Time enough for the network thread to fail while it is being started.
    Interposed().threadStarted = [] { std::this_thread::sleep_for(milliseconds(100)); };
    for (int round = 0; round < 5 && !HasFailure(); ++round) {
        ASSERT_EQ(0, m_P.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, round % 2 == 0, 10));
        EXPECT_TRUE(HasError(-ECONNREFUSED));
        EXPECT_TRUE(WaitFor([&] { return !m_P.IsConnected(); }));
    }
}

TEST_F(ConnectionTest, PeerThatClosesAtOnceShowsInTheErrorCode) {
    Interposed().threadStarted = [this] {
        if (m_Peer.Accept(milliseconds(100)))
            m_Peer.Close();
        std::this_thread::sleep_for(milliseconds(50));
    };
    ASSERT_EQ(0, Open({m_Peer.Port()}));
    EXPECT_TRUE(HasError(-6528002));
}

// ---- Pump ----

TEST_F(ConnectionTest, WaitForAConnectionPumpsAndCountsAsPending) {
    StuckPort stuck(m_Peer.Address());
    std::atomic<int> pumps{0};
    std::atomic<int> wrong{0};
    Interposed().pump = [&](bool all, int argument) {
        ++pumps;
        wrong += !all || argument != 0 || !m_P.IsFuncPending();
    };
    EXPECT_EQ(kNotConnected, Open({stuck.Port()}, 1));
    EXPECT_LE(2, pumps);
    EXPECT_GE(35, pumps);  // one in 30 ms
    EXPECT_EQ(0, wrong);
    EXPECT_FALSE(m_P.IsFuncPending());
}

TEST_F(ConnectionTest, PumpFollowsAPassWhoseHandShakeFailed) {
    std::atomic<int> pumps{0};
    Interposed().pump = [&](bool, int) { ++pumps; };
    m_P.onHandShake = [this](int) { return m_P.handShakes < 4 ? -1 : 0; };
    EXPECT_EQ(0, Open({m_Peer.Port()}));
    EXPECT_LE(3, pumps);
}

TEST_F(ConnectionTest, OpeningFromInsideThePumpIsRefused) {
    StuckPort stuck(m_Peer.Address());
    std::atomic<int> opened{1};
    std::atomic<int> adopted{1};
    Interposed().pump = [&](bool, int) {
        opened = m_P.OpenSocket(m_Peer.Host(), {m_Peer.Port()}, 10);
        adopted = m_P.InitSocket(-1, true);
    };
    EXPECT_EQ(kNotConnected, Open({stuck.Port()}, 1));
    EXPECT_EQ(kReentry, opened);
    EXPECT_EQ(kReentry, adopted);
}

// ---- Options ----

TEST_F(ConnectionTest, OpenedSocketHasItsOptions) {
    Connect();
    EXPECT_NE(0, OptionOf(m_nSock, SOL_SOCKET, SO_OOBINLINE));
    EXPECT_NE(0, OptionOf(m_nSock, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_EQ(30, SecondsOf(m_nSock, SO_SNDTIMEO));
    EXPECT_EQ(30, SecondsOf(m_nSock, SO_RCVTIMEO));
}

TEST_F(ConnectionTest, SocketTimeOutsAreThoseThatWereSet) {
    m_P.SetSndRcvTimeout(7);
    EXPECT_EQ(7, m_P.m_nSndRcvTimeout);
    EXPECT_EQ(1, CountLines(kLogDebug, "SetSndRcvTimeout 7"));
    Connect();
    EXPECT_EQ(7, SecondsOf(m_nSock, SO_SNDTIMEO));
    EXPECT_EQ(7, SecondsOf(m_nSock, SO_RCVTIMEO));
    m_P.SetSndRcvTimeout(9);
    EXPECT_EQ(7, SecondsOf(m_nSock, SO_SNDTIMEO));
}

TEST_F(ConnectionTest, OptionsThatFailAreLoggedAndTheNextIsTried) {
    m_P.ConfigSocket(-1);
    EXPECT_EQ(1, CountLines(kLogWarning, "InitSocket setsockopt(SO_OOBINLINE) failed 9"));
    EXPECT_EQ(1, CountLines(kLogWarning, "InitSocket setsockopt(TCP_NODELAY) failed 9"));
    EXPECT_EQ(1, CountLines(kLogWarning, "InitSocket setsockopt(SO_SNDTIMEO) failed 9"));
    EXPECT_EQ(1, CountLines(kLogWarning, "InitSocket setsockopt(SO_RCVTIMEO) failed 9"));
    EXPECT_EQ(0, m_P.GetErrorCode());
}

TEST_F(ConnectionTest, OptionsThatDoNotFailAreNotLogged) {
    Connect();
    EXPECT_EQ(0, m_Log.Count(kLogWarning, ""));
}

class FcntlTest : public ConnectionTest {
protected:
    /// Connects while the fcntl call of this number (get and set, twice) fails with EPERM.
    void OpenWithFailing(int number) {
        int calls = 0;
        Interposed().fcntlError = [&calls, number](int command, int) {
            if (command != F_GETFL && command != F_SETFL)
                return 0;
            return ++calls == number ? EPERM : 0;
        };
        EXPECT_EQ(0, Open({m_Peer.Port()}));
        Interposed().fcntlError = nullptr;
        EXPECT_LE(number, calls);
        EXPECT_TRUE(m_P.IsConnected());
        EXPECT_EQ(0, m_P.GetErrorCode());
    }
    int Complaints() const { return m_Log.Count(kLogWarning, "") + m_Log.Count(kLogCritical, ""); }
};

TEST_F(FcntlTest, FlagsThatCannotBeReadBeforeConnectingAreLogged) {
    OpenWithFailing(1);
    EXPECT_EQ(1, CountLines(kLogWarning, "OpenConnect fcntl(Socket, F_GETFL, 0) failed 1"));
}

TEST_F(FcntlTest, NonBlockingModeThatCannotBeSetIsLogged) {
    OpenWithFailing(2);
    EXPECT_EQ(1, CountLines(kLogWarning,
                            "OpenConnect fcntl(Socket, F_SETFL, flags | O_NONBLOCK) failed 1"));
    EXPECT_EQ(1, Complaints());
}

TEST_F(FcntlTest, FlagsThatCannotBeReadAfterConnectingAreLogged) {
    OpenWithFailing(3);
    EXPECT_EQ(1, CountLines(kLogWarning, "OpenConnect fcntl(vecSocket[i], F_GETFL, 0) failed 1"));
}

TEST_F(FcntlTest, BlockingModeThatCannotBeRestoredIsLoggedAsCritical) {
    OpenWithFailing(4);
    EXPECT_EQ(
        1, CountLines(kLogCritical,
                      "OpenConnect fcntl(vecSocket[i], F_SETFL, flags & (~O_NONBLOCK)) failed 1"));
    EXPECT_EQ(1, Complaints());
}

// ---- Adopting a descriptor ----

TEST_F(ConnectionTest, AdoptedDescriptorIsConfiguredAndReadWithoutAHandShake) {
    m_P.SetErrorAt(kNoPorts, "", "", "Elsewhere.cpp", 77);
    const int sock = ConnectTo(m_Peer);
    ASSERT_TRUE(m_Peer.Accept());
    EXPECT_EQ(0, m_P.InitSocket(sock, true));
    EXPECT_EQ(1, CountLines(kLogDebug, Text("InitSocket sock:%d this:%p 1", sock, This())));
    EXPECT_EQ(sock, m_P.GetSocket());
    EXPECT_EQ(0, m_P.handShakes);
    EXPECT_EQ(1, m_P.closeConnects);
    EXPECT_EQ(0, m_P.GetErrorCode());
    EXPECT_NE(0, OptionOf(sock, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_EQ(30, SecondsOf(sock, SO_RCVTIMEO));
    EXPECT_TRUE(m_P.m_bRunning);
    EXPECT_EQ(nullptr, m_P.m_pDispatcherThread);
    m_Peer.Send(Hex("52 65 63 76 49 50 43 26"));
    EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 1; }));
}

TEST_F(ConnectionTest, AdoptingStartsADispatcherWhenAsked) {
    const int sock = ConnectTo(m_Peer);
    ASSERT_TRUE(m_Peer.Accept());
    EXPECT_EQ(0, m_P.InitSocket(sock, false));
    EXPECT_EQ(1, CountLines(kLogDebug, Text("InitSocket sock:%d this:%p 0", sock, This())));
    EXPECT_NE(nullptr, m_P.m_pDispatcherThread);
    m_Peer.Send(Hex("52 65 63 76 49 50 43 26"));
    EXPECT_TRUE(WaitFor([&] { return m_P.Notes().size() == 3; }));
}

TEST_F(ConnectionTest, AdoptingClosesTheConnectionBefore) {
    Connect();
    ScriptedPeer next(m_Peer.Address(), 0);
    EXPECT_EQ(0, m_P.InitSocket(ConnectTo(next), true));
    EXPECT_TRUE(m_Peer.ClientClosed());
    EXPECT_TRUE(m_P.IsConnected());
}

TEST_F(ConnectionTest, AdoptingFromInsideAPumpIsRefused) {
    const int sock = ConnectTo(m_Peer);
    m_P.m_bFuncPending = true;
    EXPECT_EQ(kReentry, m_P.InitSocket(sock, true));
    m_P.m_bFuncPending = false;
    ExpectError(kReentry, "ProtocolBase::InitSocket", "",
                "Function reentry is not allowed: ProtocolBase::InitSocket", 0);
    EXPECT_EQ(0, m_P.closeConnects);
    EXPECT_EQ(0, ::close(sock));  // still the caller's
}

TEST_F(ConnectionTest, AdoptingBesideAConnectionThatStaysOpenIsRefused) {
    Connect();
    m_P.onCloseConnect = [] { return 0; };
    const int sock = ConnectTo(m_Peer);
    EXPECT_EQ(kStillClosing, m_P.InitSocket(sock, true));
    ExpectError(kStillClosing, "", "", kStillClosingText, 0);
    EXPECT_EQ(m_nSock, m_P.GetSocket());
    EXPECT_EQ(0, ::close(sock));
}

// ---- Opening again ----

TEST_F(ConnectionTest, ReConnectWithoutARememberedHostFails) {
    EXPECT_EQ(kInitObject, m_P.ReConnect());
    ExpectError(kInitObject, "m_strHost", "", "Failed to init object: m_strHost", 0);
    EXPECT_EQ(1, CountLines(kLogDebug, WithPlace("ReConnect ", -1)));
}

TEST_F(ConnectionTest, ReConnectAfterCloseConnectFails) {
    Connect();
    m_P.ProtocolBase::CloseConnect();
    EXPECT_EQ(kInitObject, m_P.ReConnect());
    ExpectError(kInitObject, "m_strHost", "", "Failed to init object: m_strHost", 0);
}

TEST_F(ConnectionTest, ReConnectWithoutADescriptorFails) {
    Connect();
    m_P.m_bRunning = false;
    EXPECT_TRUE(HasLine(kLogDebug, WithPlace("NetworkThread end")));
    const int sock = m_P.ReleaseSocket();
    EXPECT_EQ(kInitObject, m_P.ReConnect());
    ExpectError(kInitObject, "Invalid m_Socket", "", "Failed to init object: Invalid m_Socket", 0);
    EXPECT_EQ(1, CountLines(kLogDebug, WithPlace(Text("ReConnect %s", m_Peer.Host()), -1)));
    EXPECT_EQ(0, ::close(sock));
}

TEST_F(ConnectionTest, ReConnectOnALiveConnectionReplacesIt) {
    ASSERT_EQ(0, m_P.OpenConnect(m_Peer.Host(), {m_Peer.Port()}, true, 9));
    ASSERT_TRUE(m_Peer.Accept());
    m_nSock = m_P.GetSocket();
    const int before = OpenDescriptors();
    EXPECT_EQ(0, m_P.ReConnect());
    EXPECT_EQ(1, CountLines(kLogDebug, WithPlace(Text("ReConnect %s", m_Peer.Host()))));
    EXPECT_EQ(2,
              CountLines(kLogDebug, Text("OpenConnect %s 1 1 9 this:%p", m_Peer.Host(), This())));
    EXPECT_EQ(1, m_P.closeConnects);
    EXPECT_TRUE(m_Peer.Accept());  // closes the end of the connection before
    EXPECT_EQ(before, OpenDescriptors());
    m_Peer.Send(Hex("52 65 63 76 49 50 43 25 02 41 42"));
    EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 1; }));
    EXPECT_EQ(TestProtocol::Event(0x25, Hex("02 41 42")), m_P.TakeEvents().at(0));
}

TEST_F(ConnectionTest, ReConnectOnALiveConnectionLeavesOneNetworkThread) {
    Connect(false);
    for (int n = 0; n < 5; ++n) {
        EXPECT_EQ(0, m_P.ReConnect());
        EXPECT_TRUE(m_Peer.Accept());
    }
    EXPECT_TRUE(WaitFor([&] { return m_Log.Count(kLogDebug, "NetworkThread end") == 5; }));
    EXPECT_TRUE(m_P.IsConnected());
    EXPECT_EQ(1u, m_P.m_pThreadGroup->size());
    m_Peer.Send(Hex("52 65 63 76 49 50 43 26"));
    EXPECT_TRUE(WaitFor([&] {
        const std::vector<std::string> notes = m_P.Notes();
        return !notes.empty() && notes.back() == "HandleRetVal 26 1";
    }));
    EndProtocol();
    EXPECT_EQ(6, m_Log.Count(kLogDebug, "NetworkThread begin"));
    EXPECT_EQ(6, m_Log.Count(kLogDebug, "NetworkThread end"));
    EXPECT_EQ(6, m_Log.Count(kLogDebug, "DispatcherThread end"));
}

TEST_F(ConnectionTest, ReConnectFromACloseHookOpensTheLostLinkAgain) {
    std::atomic<int> result{1};
    m_P.onConnectClose = [&] { result = m_P.ReConnect(); };
    Connect();
    m_Peer.Close();
    EXPECT_TRUE(WaitFor([&] { return result != 1; }));
    EXPECT_EQ(0, result);
    EXPECT_TRUE(m_Peer.Accept());
    EXPECT_TRUE(m_P.IsConnected());
    m_Peer.Send(Hex("52 65 63 76 49 50 43 26"));
    EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 1; }));
}

// ---- Closing ----

TEST_F(ConnectionTest, CloseConnectEndsEverythingButTheDispatcher) {
    Connect(false);
    m_P.CloseConnect();
    EXPECT_EQ(1, CountLines(kLogDebug, WithPlace("CloseConnect 1 0")));
    EXPECT_EQ(-1, m_P.GetSocket());
    EXPECT_FALSE(m_P.IsConnected());
    EXPECT_FALSE(m_P.m_bRunning);
    EXPECT_TRUE(m_P.m_bClosing);
    EXPECT_FALSE(m_P.HasThreadGroup());
    EXPECT_EQ("", m_P.Host());
    EXPECT_NE(nullptr, m_P.m_pDispatcherThread);
    EXPECT_EQ(0, m_P.GetErrorCode());
    EXPECT_TRUE(m_Peer.ClientClosed());
}

TEST_F(ConnectionTest, CloseConnectTwiceIsHarmless) {
    Connect();
    m_P.CloseConnect();
    m_P.CloseConnect();
    EXPECT_EQ(1, CountLines(kLogDebug, WithPlace("CloseConnect 1 0")));
    EXPECT_EQ(1, CountLines(kLogDebug, WithPlace("CloseConnect 0 1", -1)));
    EXPECT_TRUE(m_P.m_bClosing);
}

TEST_F(ConnectionTest, CloseConnectKeepsTheRecordedError) {
    Connect();
    m_P.SetErrorAt(kNoPorts, "one", "two", "Elsewhere.cpp", 77);
    m_P.CloseConnect();
    EXPECT_EQ(kNoPorts, m_P.GetErrorCode());
    EXPECT_EQ(77, m_P.ErrorLine());
}

TEST_F(ConnectionTest, ReleasedDescriptorStaysOpenAndIsTheCallers) {
    ASSERT_EQ(0, m_P.OpenSocket(m_Peer.Host(), {m_Peer.Port()}, 10));
    ASSERT_TRUE(m_Peer.Accept());
    const int held = m_P.GetSocket();
    const int sock = m_P.ReleaseSocket();
    EXPECT_EQ(held, sock);
    EXPECT_EQ(-1, m_P.GetSocket());
    EXPECT_FALSE(m_P.IsConnected());
    EndProtocol();
    EXPECT_EQ(2, ::send(sock, "hi", 2, MSG_NOSIGNAL));
    EXPECT_EQ("hi", m_Peer.Receive(2));
    EXPECT_EQ(0, ::close(sock));
}

TEST_F(ConnectionTest, FiftyConnectionsLeaveNoDescriptor) {
    Connect(false);
    m_P.CloseConnect();
    m_Peer.Close();
    const int before = OpenDescriptors();
    for (int n = 0; n < 50; ++n) {
        Connect(n % 2 == 0);
        m_P.CloseConnect();
    }
    m_Peer.Close();
    EXPECT_EQ(before, OpenDescriptors());
}

// ---- Descriptors beyond what a plain set of the platform holds ----

TEST_F(ConnectionTest, DescriptorsOf1024AndMoreConnect) {
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
    RefusingPort refusing(m_Peer.Address());
    m_P.onHandShake = LooksAlive;
    ASSERT_EQ(0, Open({refusing.Port(), m_Peer.Port()}));
    EXPECT_LE(1200, m_P.GetSocket());
    EXPECT_TRUE(m_Peer.Accept());
    EXPECT_EQ(1, m_Log.Count(kLogInfo, Text("OpenSocket use port# %hu sock:", m_Peer.Port())));
    for (const int fd : held)
        ::close(fd);
}

}  // namespace
}  // namespace sr_test
