#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "TeskClient/ThdSafeSocket.h"
#include "tests/support/ScriptedPeer.h"
#include "tests/unit/SystemCalls.h"

namespace {

using sr_test::milliseconds;
using sr_test::ScriptedPeer;
using sr_test::SystemCalls;
using sr_test::UniqueAddress;
using sr_test::WaitFor;

// More than the kernel buffers of both ends take.
constexpr int kTooMuch = 64 * 1024 * 1024;

class Stopwatch {
public:
    /// The product measures with truncated milliseconds, so a wait may look 1 ms short.
    long long Ms() const {
        return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - m_Start)
                   .count() +
               1;
    }

private:
    std::chrono::steady_clock::time_point m_Start = std::chrono::steady_clock::now();
};

// A wait in steps of 5 ms can fail that often and no oftener, on the fastest and the slowest
// machine.
void ExpectSteps(const SystemCalls& calls, const Stopwatch& watch) {
    EXPECT_LE(calls.Failed(), watch.Ms() / 5 + calls.Succeeded() + 2) << "polled in a busy loop";
}

int UnreadBytes(int fd) {
    int count = -1;
    ioctl(fd, FIONREAD, &count);
    return count;
}

bool IsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

/// What a receive gave, errno taken in the statement behind it.
struct Received {
    int result;
    int error;
    std::string bytes;  // as many as the result says
};

class ThdSafeSocketTest : public testing::Test {
protected:
    ThdSafeSocketTest() : m_Peer(UniqueAddress(), 0) {}

    ~ThdSafeSocketTest() override {
        for (const int fd : m_Made) {
            if (IsOpen(fd))
                ::close(fd);
        }
    }

    void SetUp() override {
        m_Fd = Connect(m_Peer);
        ASSERT_NE(-1, m_Fd);
        m_Socket.set(m_Fd);
    }

    // A blocking descriptor, connected to the peer.
    int Connect(ScriptedPeer& peer) {
        sockaddr_in name = {};
        name.sin_family = AF_INET;
        name.sin_port = htons(peer.Port());
        inet_pton(AF_INET, peer.Host(), &name.sin_addr);
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&name), sizeof name) != 0 || !peer.Accept()) {
            ::close(fd);
            return -1;
        }
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        m_Made.push_back(fd);
        return fd;
    }

    Received Recv(int len, int flags = 0, int timeoutMs = 10000) {
        std::string buffer(static_cast<size_t>(len) + 1, '#');
        const int result = m_Socket.recv(&buffer[0], len, flags, timeoutMs);
        const int error = errno;
        EXPECT_EQ('#', buffer.back()) << "written behind the buffer";
        return {result, error, buffer.substr(0, static_cast<size_t>(std::max(result, 0)))};
    }

    Received Peek(int len, int timeoutMs = 10000) { return Recv(len, MSG_PEEK, timeoutMs); }

    // Bytes that are in the kernel when it returns.
    void Arrive(const std::string& bytes) {
        const int expected = std::max(UnreadBytes(m_Fd), 0) + static_cast<int>(bytes.size());
        m_Peer.Send(bytes);
        ASSERT_TRUE(WaitFor([&] { return UnreadBytes(m_Fd) == expected; }));
    }

    // Waits until the kernel knows that the peer has closed or reset.
    void AwaitHangUp() {
        pollfd entry = {m_Fd, POLLRDHUP, 0};
        ASSERT_EQ(1, ::poll(&entry, 1, 10000));
    }

    ScriptedPeer m_Peer;
    ThdSafeSocket m_Socket;
    int m_Fd = -1;

private:
    std::vector<int> m_Made;
};

// Holding, releasing, replacing.

TEST_F(ThdSafeSocketTest, NewSocketHoldsNothing) {
    const ThdSafeSocket socket;
    EXPECT_EQ(-1, socket.get());
}

TEST_F(ThdSafeSocketTest, ConstructorTakesTheDescriptor) {
    ThdSafeSocket socket(m_Fd);
    EXPECT_EQ(m_Fd, socket.get());
    EXPECT_EQ(3, socket.send("abc", 3, 0));
    EXPECT_EQ("abc", m_Peer.Receive(3));
}

TEST_F(ThdSafeSocketTest, DestructorLeavesTheDescriptorOpen) {
    {
        ThdSafeSocket socket(m_Fd);
        EXPECT_EQ(1, socket.send("a", 1, 0));
    }
    EXPECT_TRUE(IsOpen(m_Fd));
    EXPECT_EQ(1, ::send(m_Fd, "b", 1, MSG_NOSIGNAL));
    EXPECT_EQ("ab", m_Peer.Receive(2));
}

TEST_F(ThdSafeSocketTest, ReleaseHandsTheDescriptorOver) {
    EXPECT_EQ(m_Fd, m_Socket.release());
    EXPECT_EQ(-1, m_Socket.get());
    EXPECT_TRUE(IsOpen(m_Fd));
    EXPECT_EQ(-1, m_Socket.release());
}

TEST_F(ThdSafeSocketTest, CloseClosesTheDescriptor) {
    EXPECT_EQ(0, m_Socket.close());
    EXPECT_EQ(-1, m_Socket.get());
    EXPECT_FALSE(IsOpen(m_Fd));
    EXPECT_TRUE(m_Peer.ClientClosed());
}

TEST_F(ThdSafeSocketTest, CloseOfNothingIsHarmless) {
    ThdSafeSocket socket;
    socket.close();
    EXPECT_EQ(-1, socket.get());
    EXPECT_EQ(0, m_Socket.close());
    m_Socket.close();
    EXPECT_EQ(-1, m_Socket.get());
}

TEST_F(ThdSafeSocketTest, SetClosesTheOldDescriptorFirst) {
    ScriptedPeer other(UniqueAddress(), 0);
    const int next = Connect(other);
    m_Socket.set(next);
    EXPECT_EQ(next, m_Socket.get());
    EXPECT_FALSE(IsOpen(m_Fd));
    EXPECT_TRUE(m_Peer.ClientClosed());
    EXPECT_EQ(1, m_Socket.send("x", 1, 0));
    EXPECT_EQ("x", other.Receive(1));
}

TEST_F(ThdSafeSocketTest, AssignmentIsSet) {
    ScriptedPeer other(UniqueAddress(), 0);
    const int next = Connect(other);
    EXPECT_EQ(&m_Socket, &(m_Socket = next));
    EXPECT_EQ(next, m_Socket.get());
    EXPECT_FALSE(IsOpen(m_Fd));
    m_Socket = -1;
    EXPECT_EQ(-1, m_Socket.get());
    EXPECT_FALSE(IsOpen(next));
}

TEST_F(ThdSafeSocketTest, SetEmptiesThePeekBuffer) {
    for (const bool assign : {false, true}) {
        SCOPED_TRACE(assign);
        m_Peer.Send("old!");
        EXPECT_EQ("old!", Peek(4).bytes);
        m_Fd = Connect(m_Peer);
        if (assign)
            m_Socket = m_Fd;
        else
            m_Socket.set(m_Fd);
        m_Peer.Send("new!");
        EXPECT_EQ("new!", Recv(4).bytes);
    }
}

// Receiving, with each kind of descriptor that a caller may hand over.

enum class Mode { Blocking, NonBlocking, TimeoutOptions };

class EachModeTest : public ThdSafeSocketTest, public testing::WithParamInterface<Mode> {
protected:
    void SetUp() override {
        ThdSafeSocketTest::SetUp();
        if (GetParam() == Mode::NonBlocking) {
            ASSERT_EQ(0, fcntl(m_Fd, F_SETFL, fcntl(m_Fd, F_GETFL) | O_NONBLOCK));
        }
        if (GetParam() == Mode::TimeoutOptions) {
            const timeval long30s = {30, 0};
            ASSERT_EQ(0, setsockopt(m_Fd, SOL_SOCKET, SO_RCVTIMEO, &long30s, sizeof long30s));
            ASSERT_EQ(0, setsockopt(m_Fd, SOL_SOCKET, SO_SNDTIMEO, &long30s, sizeof long30s));
        }
    }
};

INSTANTIATE_TEST_SUITE_P(Descriptors,
                         EachModeTest,
                         testing::Values(Mode::Blocking, Mode::NonBlocking, Mode::TimeoutOptions),
                         [](const testing::TestParamInfo<Mode>& mode) -> std::string {
                             switch (mode.param) {
                                 case Mode::Blocking:
                                     return "Blocking";
                                 case Mode::NonBlocking:
                                     return "NonBlocking";
                                 default:
                                     return "TimeoutOptions";
                             }
                         });

TEST_P(EachModeTest, RecvTakesWhatWasAskedAndLeavesTheRest) {
    m_Peer.Send("abcdef");
    EXPECT_EQ("abcd", Recv(4).bytes);
    EXPECT_EQ("ef", Recv(2).bytes);
}

TEST_P(EachModeTest, RecvJoinsPieces) {
    std::thread sender([&] { m_Peer.SendByteByByte("twenty bytes in all."); });
    EXPECT_EQ("twenty bytes in all.", Recv(20).bytes);
    sender.join();
}

TEST_P(EachModeTest, RecvEndsAfterItsTimeout) {
    const Stopwatch watch;
    const Received received = Recv(4, 0, 300);
    EXPECT_GE(watch.Ms(), 300);
    EXPECT_LT(watch.Ms(), 4000);
    EXPECT_EQ(0, received.result);
    EXPECT_EQ(EAGAIN, received.error);
}

TEST_P(EachModeTest, RecvInMidMessageEndsAfterItsTimeoutWithThePartialCount) {
    Arrive("abc");
    const Stopwatch watch;
    const Received received = Recv(8, 0, 300);
    EXPECT_GE(watch.Ms(), 300);
    EXPECT_LT(watch.Ms(), 4000);
    EXPECT_EQ("abc", received.bytes);
    EXPECT_EQ(0, UnreadBytes(m_Fd));
}

TEST_P(EachModeTest, PeekEndsAfterItsTimeout) {
    const Stopwatch watch;
    EXPECT_EQ(0, Peek(7, 300).result);
    EXPECT_GE(watch.Ms(), 300);
    EXPECT_LT(watch.Ms(), 4000);
}

TEST_P(EachModeTest, PeerThatClosedGivesZeroAtOnce) {
    m_Peer.Close();
    const Stopwatch watch;
    errno = ECONNREFUSED;
    const Received received = Recv(4, 0, 20000);
    EXPECT_LT(watch.Ms(), 10000);
    EXPECT_EQ(0, received.result);
    EXPECT_EQ(0, received.error) << "whatever failed before";
}

TEST_P(EachModeTest, PeerThatClosesDuringTheWaitGivesZeroAndNoError) {
    std::thread closer([&] {
        usleep(50000);
        m_Peer.Close();
    });
    const Received received = Recv(4, 0, 20000);
    closer.join();
    EXPECT_EQ(0, received.result);
    EXPECT_EQ(0, received.error) << "the attempts before found nothing: EAGAIN";
}

TEST_P(EachModeTest, PeerThatClosesInMidMessageGivesZeroNotThePartialCount) {
    m_Peer.Send("abc");
    m_Peer.Close();
    errno = EIO;
    const Received received = Recv(8, 0, 20000);
    EXPECT_EQ(0, received.result);
    EXPECT_EQ(0, received.error);
}

TEST_P(EachModeTest, PeerThatResetsGivesItsError) {
    m_Peer.Reset();
    AwaitHangUp();
    errno = 0;
    const Received received = Recv(4, 0, 20000);
    EXPECT_EQ(-1, received.result);
    EXPECT_EQ(ECONNRESET, received.error);
}

TEST_P(EachModeTest, PeerThatResetsDuringTheWaitGivesItsErrorAtOnce) {
    const Stopwatch watch;
    std::thread resetter([&] {
        usleep(50000);
        m_Peer.Reset();
    });
    const Received received = Recv(4, 0, 20000);
    resetter.join();
    EXPECT_LT(watch.Ms(), 10000);
    EXPECT_EQ(-1, received.result);
    EXPECT_EQ(ECONNRESET, received.error);
}

TEST_P(EachModeTest, ClearedFlagEndsALongWait) {
    const Stopwatch watch;
    std::atomic<bool> goOn(true);
    std::thread stopper([&] {
        usleep(50000);
        goOn = false;
    });
    char buffer[4];
    EXPECT_EQ(0, m_Socket.recv(buffer, 4, 0, goOn, 30000));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_GE(watch.Ms(), 50 - 1);
    EXPECT_LT(watch.Ms(), 10000);
    stopper.join();
}

TEST_P(EachModeTest, WholeMessageIsSent) {
    std::string bytes;
    for (int i = 0; i < 100000; ++i)
        bytes += std::to_string(i);
    std::atomic<int> sent(0);
    std::thread sender(
        [&] { sent = m_Socket.send(bytes.data(), static_cast<int>(bytes.size()), 0); });
    EXPECT_EQ(bytes, m_Peer.Receive(bytes.size(), milliseconds(5000)));
    sender.join();
    EXPECT_EQ(static_cast<int>(bytes.size()), sent);
}

TEST_P(EachModeTest, SendToAPeerThatNeverReadsReturnsShortAfterItsBudget) {
    const std::string bytes(kTooMuch, 'x');
    const Stopwatch watch;
    const SystemCalls calls;
    const int sent = m_Socket.send(bytes.data(), kTooMuch, 0);
    ExpectSteps(calls, watch);
    EXPECT_GE(watch.Ms(), 5000);
    EXPECT_LT(watch.Ms(), 9000);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, kTooMuch);
}

// What is sent and received after a time-out starts where the one before has ended.
TEST_P(EachModeTest, PrefixInTwoPiecesDropsNoByte) {
    m_Peer.Send("Rec");
    EXPECT_EQ("Rec", Peek(7, 50).bytes);
    EXPECT_EQ("Rec", Peek(7, 50).bytes);
    m_Peer.Send("vIPC!");
    EXPECT_EQ("RecvIPC", Peek(7).bytes);
    EXPECT_EQ("RecvIPC", Recv(7).bytes);
    EXPECT_EQ("!", Recv(1).bytes);
}

// The peek buffer.

using PeekTest = ThdSafeSocketTest;

TEST_F(PeekTest, PeekedBytesStayForTheNextReceive) {
    m_Peer.Send("abcd");
    EXPECT_EQ("abcd", Peek(4).bytes);
    EXPECT_EQ("abcd", Peek(4).bytes);
    EXPECT_EQ("abcd", Recv(4).bytes);
    EXPECT_EQ(0, Recv(1, 0, 20).result) << "and are gone then";
}

TEST_F(PeekTest, PeekingTakesTheBytesFromTheKernel) {
    Arrive("abcdef");
    EXPECT_EQ("abcd", Peek(4).bytes);
    EXPECT_EQ(2, UnreadBytes(m_Fd));
}

// Without a descriptor the kernel has nothing to give.
TEST_F(PeekTest, BufferThatHoldsEnoughIsServedWithoutTheSocket) {
    m_Peer.Send("abcdef");
    EXPECT_EQ("abcdef", Peek(6).bytes);
    m_Socket.release();
    EXPECT_EQ("abcd", Peek(4).bytes);
    EXPECT_EQ("abcdef", Peek(6).bytes) << "peeking keeps all six";
    EXPECT_EQ("abcd", Recv(4).bytes);
    EXPECT_EQ("e", Recv(1).bytes);
    EXPECT_EQ("f", Peek(1).bytes);
    EXPECT_EQ("f", Recv(1).bytes);
    const Received empty = Recv(1);
    EXPECT_EQ(-1, empty.result);
    EXPECT_EQ(EBADF, empty.error);
}

TEST_F(PeekTest, PlainReceiveOfThePeekedLengthReadsNothingFromTheKernel) {
    Arrive("abcdefgh");
    EXPECT_EQ("abcd", Peek(4).bytes);
    EXPECT_EQ("abcd", Recv(4).bytes);
    EXPECT_EQ(4, UnreadBytes(m_Fd));
}

TEST_F(PeekTest, PlainReceiveOfMoreIsFilledUpFromTheKernel) {
    Arrive("abcdef");
    EXPECT_EQ("ab", Peek(2).bytes);
    EXPECT_EQ("abcde", Recv(5).bytes);
    EXPECT_EQ(1, UnreadBytes(m_Fd));
    EXPECT_EQ("f", Recv(1).bytes) << "the buffer was emptied";
}

TEST_F(PeekTest, PeekOfMoreKeepsBothParts) {
    Arrive("abcdef");
    EXPECT_EQ("ab", Peek(2).bytes);
    EXPECT_EQ("abcde", Peek(5).bytes);
    EXPECT_EQ(1, UnreadBytes(m_Fd));
    EXPECT_EQ("abcdef", Recv(6).bytes);
}

TEST_F(PeekTest, PeekInPiecesKeepsTheirOrder) {
    m_Peer.Send("a");
    EXPECT_EQ("a", Peek(4, 20).bytes);
    m_Peer.Send("b");
    EXPECT_EQ("ab", Peek(4, 20).bytes);
    m_Peer.Send("cd");
    EXPECT_EQ("abcd", Peek(4).bytes);
    EXPECT_EQ("abcd", Recv(4).bytes);
}

TEST_F(PeekTest, PlainReceiveThatTimesOutTakesThePeekedBytesWithIt) {
    m_Peer.Send("ab");
    EXPECT_EQ("ab", Peek(2).bytes);
    EXPECT_EQ("ab", Recv(4, 0, 20).bytes);
    m_Peer.Send("cd");
    EXPECT_EQ("cd", Recv(2).bytes);
}

TEST_F(PeekTest, CloseBehindPeekedBytesGivesZero) {
    m_Peer.Send("ab");
    EXPECT_EQ("ab", Peek(2).bytes);
    m_Peer.Close();
    errno = EIO;
    const Received peeked = Peek(4);
    EXPECT_EQ(0, peeked.result);
    EXPECT_EQ(0, peeked.error);
    EXPECT_EQ("ab", Recv(2).bytes) << "the peeked bytes are still there";
    EXPECT_EQ(0, Recv(1).result);
}

TEST_F(PeekTest, CloseBehindPeekedBytesGivesZeroToAPlainReceiveToo) {
    m_Peer.Send("ab");
    EXPECT_EQ("ab", Peek(2).bytes);
    m_Peer.Close();
    errno = EIO;
    const Received received = Recv(4);
    EXPECT_EQ(0, received.result);
    EXPECT_EQ(0, received.error);
}

TEST_F(PeekTest, ResetBehindPeekedBytesGivesItsError) {
    m_Peer.Send("ab");
    EXPECT_EQ("ab", Peek(2).bytes);
    m_Peer.Reset();
    AwaitHangUp();
    const Received received = Peek(4);
    EXPECT_EQ(-1, received.result);
    EXPECT_EQ(ECONNRESET, received.error);
}

TEST_F(PeekTest, NothingAskedIsNothingTaken) {
    Arrive("ab");
    EXPECT_EQ(0, Recv(0).result);
    EXPECT_EQ(0, Peek(0).result);
    EXPECT_EQ("a", Peek(1).bytes);
    EXPECT_EQ(0, Recv(0).result);
    EXPECT_EQ("ab", Recv(2).bytes);
}

// More about receiving.

using RecvTest = ThdSafeSocketTest;

TEST_F(RecvTest, BytesMayBeAnything) {
    std::string bytes;
    for (int i = 0; i < 256; ++i)
        bytes.push_back(static_cast<char>(i));
    m_Peer.Send(bytes);
    EXPECT_EQ(bytes, Peek(256).bytes);
    EXPECT_EQ(bytes, Recv(256).bytes);
}

TEST_F(RecvTest, NoDescriptorIsAnErrorAtOnce) {
    m_Socket.close();
    errno = 0;
    const Stopwatch watch;
    const Received received = Recv(4, 0, 20000);
    EXPECT_EQ(-1, received.result);
    EXPECT_EQ(EBADF, received.error);
    EXPECT_LT(watch.Ms(), 10000);
}

TEST_F(RecvTest, DescriptorThatIsNoSocketIsAnErrorAtOnce) {
    ThdSafeSocket file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    char byte;
    EXPECT_EQ(-1, file.recv(&byte, 1, 0, 20000));
    EXPECT_EQ(ENOTSOCK, errno);
    EXPECT_EQ(0, file.close());
}

TEST_F(RecvTest, NoTimeStillTakesWhatIsThere) {
    Arrive("abcd");
    EXPECT_EQ("abcd", Recv(4, 0, 0).bytes);
    const Received received = Recv(1, 0, 0);
    EXPECT_EQ(0, received.result);
    EXPECT_EQ(EAGAIN, received.error);
}

TEST_F(RecvTest, FlagIsLookedAtAfterTheFirstAttemptOnly) {
    Arrive("abcd");
    const std::atomic<bool> stopped(false);
    char buffer[8] = {};
    EXPECT_EQ(4, m_Socket.recv(buffer, 4, 0, stopped, 30000));
    EXPECT_EQ("abcd", std::string(buffer, 4));
}

TEST_F(RecvTest, ClearedFlagReturnsThePartialCount) {
    Arrive("ab");
    bool stopped = false;
    char buffer[8];
    const Stopwatch watch;
    EXPECT_EQ(2, m_Socket.recv(buffer, 4, 0, stopped, 30000));
    EXPECT_LT(watch.Ms(), 10000);
    EXPECT_EQ("ab", std::string(buffer, 2));
}

TEST_F(RecvTest, ClearedFlagLeavesPeekedBytesInTheBuffer) {
    Arrive("ab");
    bool stopped = false;
    char buffer[8];
    EXPECT_EQ(2, m_Socket.recv(buffer, 4, MSG_PEEK, stopped, 30000));
    EXPECT_EQ("ab", Recv(2).bytes);
}

TEST_F(RecvTest, FlagThatStaysSetChangesNothing) {
    bool goOn = true;
    char buffer[8];
    const Stopwatch watch;
    EXPECT_EQ(0, m_Socket.recv(buffer, 4, 0, goOn, 100));
    EXPECT_GE(watch.Ms(), 100);
    m_Peer.Send("abcd");
    EXPECT_EQ(4, m_Socket.recv(buffer, 4, 0, goOn, 10000));
}

TEST_F(RecvTest, OtherFlagsReachTheKernel) {
    ASSERT_EQ(1, ::send(m_Peer.Socket(), "!", 1, MSG_OOB | MSG_NOSIGNAL));
    pollfd entry = {m_Fd, POLLPRI, 0};
    ASSERT_EQ(1, ::poll(&entry, 1, 10000));
    EXPECT_EQ("!", Recv(1, MSG_OOB).bytes);
}

extern "C" void OnSignal(int) {}

// SIGUSR1 interrupts system calls while the object lives.
class Interrupts {
public:
    explicit Interrupts(pthread_t thread) {
        struct sigaction action = {};
        action.sa_handler = OnSignal;
        sigaction(SIGUSR1, &action, &m_Before);
        m_Thread = std::thread([this, thread] {
            while (!m_bStop) {
                pthread_kill(thread, SIGUSR1);
                usleep(2000);
            }
        });
    }
    ~Interrupts() {
        m_bStop = true;
        m_Thread.join();
        sigaction(SIGUSR1, &m_Before, nullptr);
    }

private:
    std::atomic<bool> m_bStop{false};
    std::thread m_Thread;
    struct sigaction m_Before = {};
};

TEST_F(RecvTest, SignalsNeitherEndNorShortenAWait) {
    const Interrupts interrupts(pthread_self());
    const Stopwatch watch;
    const Received received = Recv(4, 0, 300);
    EXPECT_EQ(0, received.result);
    EXPECT_EQ(EAGAIN, received.error);
    EXPECT_GE(watch.Ms(), 300);
}

TEST_F(RecvTest, SignalsLoseNoBytes) {
    const Interrupts interrupts(pthread_self());
    std::thread sender([&] { m_Peer.SendByteByByte("twenty bytes in all."); });
    EXPECT_EQ("twenty bytes in all.", Recv(20).bytes);
    sender.join();
}

// A call that would wait in the kernel is interrupted there; a descriptor's mode decides that.
TEST_F(RecvTest, InterruptedReadIsTriedAgainAfterAStep) {
    Arrive("abcd");
    SystemCalls calls;
    calls.FailNext(3, EINTR);
    const Stopwatch watch;
    EXPECT_EQ("abcd", Recv(4).bytes);
    EXPECT_GE(watch.Ms(), 15);
    EXPECT_EQ(3, calls.Failed());
}

TEST_F(RecvTest, InterruptedReadKeepsTheTimeout) {
    SystemCalls calls;
    calls.FailNext(1000000, EINTR);
    const Stopwatch watch;
    const Received received = Recv(4, 0, 300);
    EXPECT_EQ(0, received.result);
    EXPECT_EQ(EAGAIN, received.error);
    EXPECT_GE(watch.Ms(), 300);
    EXPECT_LT(watch.Ms(), 4000);
    ExpectSteps(calls, watch);
}

TEST_F(RecvTest, AnyOtherErrorIsReturnedAtOnceAsItIs) {
    for (const int error : {ETIMEDOUT, EHOSTUNREACH, EPIPE, ENOMEM}) {
        SystemCalls calls;
        calls.FailNext(1, error);
        const Received received = Recv(4);
        EXPECT_EQ(-1, received.result);
        EXPECT_EQ(error, received.error);
    }
}

TEST_F(RecvTest, IdleWaitTriesOnceAStep) {
    const Stopwatch watch;
    const SystemCalls calls;
    EXPECT_EQ(0, Recv(4, 0, 2000).result);
    ExpectSteps(calls, watch);
}

TEST_F(RecvTest, WaitInMidMessageTriesOnceAStep) {
    Arrive("ab");
    const Stopwatch watch;
    const SystemCalls calls;
    EXPECT_EQ(2, Peek(4, 2000).result);
    ExpectSteps(calls, watch);
}

// A wait in whole steps of 5 ms cannot get below them in any round in which it has to wait.
class EarlyWakeTest : public ThdSafeSocketTest {
protected:
    static constexpr int kRounds = 101;

    // Shortest time of a receive of `len` bytes, of which the last comes about 1 ms after its
    // start.
    double ShortestMs(int len) {
        std::atomic<int> started(0);
        std::thread sender([&] {
            for (int round = 1; round <= kRounds; ++round) {
                while (started < round)
                    std::this_thread::yield();
                usleep(1000);
                m_Peer.Send("z");
            }
        });
        double shortest = 1000.0;
        for (int round = 1; round <= kRounds; ++round) {
            if (len > 1)
                Arrive(std::string(static_cast<size_t>(len) - 1, 'a'));
            const auto start = std::chrono::steady_clock::now();
            started = round;
            const SystemCalls calls;
            EXPECT_EQ(len, Recv(len).result);
            const std::chrono::duration<double, std::milli> time =
                std::chrono::steady_clock::now() - start;
            if (calls.Failed() + calls.Succeeded() > 1)
                shortest = std::min(shortest, time.count());
        }
        sender.join();
        return shortest;
    }
};

TEST_F(EarlyWakeTest, ReceiveEndsAsSoonAsBytesCome) {
    EXPECT_LT(ShortestMs(1), 4.5);
}

TEST_F(EarlyWakeTest, ReceiveInMidMessageEndsAsSoonAsTheRestComes) {
    EXPECT_LT(ShortestMs(8), 4.5);
}

TEST_F(RecvTest, WorksBeyondThe1024thDescriptor) {
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    const int high = fcntl(m_Fd, F_DUPFD_CLOEXEC, 1500);
    if (high < 0)
        GTEST_SKIP() << "the system allows no descriptor of 1500";
    m_Socket.set(high);
    std::thread sender([&] { m_Peer.SendByteByByte("abcd"); });
    EXPECT_EQ("abcd", Recv(4).bytes);
    sender.join();
    EXPECT_EQ(2, m_Socket.send("xy", 2, 0));
    EXPECT_EQ("xy", m_Peer.Receive(2));
    EXPECT_EQ(0, m_Socket.close());
}

// More about sending.

using SendTest = ThdSafeSocketTest;

TEST_F(SendTest, EveryByteArrivesOnce) {
    EXPECT_EQ(3, m_Socket.send("abc", 3, 0));
    EXPECT_EQ(1, m_Socket.send("d", 1, 0));
    EXPECT_EQ("abcd", m_Peer.Receive(4));
    EXPECT_EQ("", m_Peer.ReceiveAllWithin(milliseconds(30)));
}

TEST_F(SendTest, OnlyTheGivenLengthIsSent) {
    EXPECT_EQ(2, m_Socket.send("ab\0cd", 2, 0));
    EXPECT_EQ(3, m_Socket.send("\0cd", 3, 0));
    EXPECT_EQ(sr_test::Hex("61 62 00 63 64"), m_Peer.Receive(5));
}

TEST_F(SendTest, NothingToSendIsSentAtOnce) {
    const Stopwatch watch;
    EXPECT_EQ(0, m_Socket.send("", 0, 0));
    EXPECT_LT(watch.Ms(), 3000);
    EXPECT_EQ("", m_Peer.ReceiveAllWithin(milliseconds(30)));
}

TEST_F(SendTest, PeerThatReadsLateGetsEverythingInOrder) {
    std::string bytes(16 * 1024 * 1024, '\0');
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 31 >> 7);
    std::atomic<int> sent(0);
    std::thread sender(
        [&] { sent = m_Socket.send(bytes.data(), static_cast<int>(bytes.size()), 0); });
    usleep(200000);
    const bool same = m_Peer.Receive(bytes.size()) == bytes;
    sender.join();
    EXPECT_EQ(static_cast<int>(bytes.size()), sent);
    EXPECT_TRUE(same);
}

TEST_F(SendTest, FlagsReachTheKernel) {
    const int on = 1;
    ASSERT_EQ(0, setsockopt(m_Peer.Socket(), SOL_SOCKET, SO_OOBINLINE, &on, sizeof on));
    ASSERT_EQ(1, m_Socket.send("!", 1, MSG_OOB));
    pollfd entry = {m_Peer.Socket(), POLLPRI, 0};
    ASSERT_EQ(1, ::poll(&entry, 1, 10000));
    EXPECT_NE(0, entry.revents & POLLPRI) << "sent as urgent";
}

TEST_F(SendTest, SignalsDoNotEndASend) {
    const Interrupts interrupts(pthread_self());
    const std::string bytes(16 * 1024 * 1024, 'x');
    std::thread reader([&] {
        usleep(100000);
        EXPECT_EQ(bytes.size(), m_Peer.Receive(bytes.size()).size());
    });
    EXPECT_EQ(static_cast<int>(bytes.size()),
              m_Socket.send(bytes.data(), static_cast<int>(bytes.size()), 0));
    reader.join();
}

TEST_F(SendTest, ErrorsThatPassLoseNoBytes) {
    for (const int error : {EINTR, EAGAIN, ENOBUFS}) {
        SystemCalls calls;
        calls.FailNext(3, error);
        EXPECT_EQ(4, m_Socket.send("abcd", 4, 0));
        EXPECT_EQ(3, calls.Failed());
        EXPECT_EQ("abcd", m_Peer.Receive(4));
    }
}

class DeadDescriptorTest : public ThdSafeSocketTest {
protected:
    // Sends to a descriptor that takes nothing any more: ends after the budget, and sleeps in it.
    void ExpectIdleSend() {
        const Stopwatch watch;
        const SystemCalls calls;
        EXPECT_EQ(0, m_Socket.send("abc", 3, 0)) << "errors are a short count, never -1";
        ExpectSteps(calls, watch);
        EXPECT_GE(watch.Ms(), 5000);
        EXPECT_LT(watch.Ms(), 9000);
    }
};

TEST_F(DeadDescriptorTest, SendWithoutADescriptorSleepsItsBudget) {
    m_Socket.close();
    ExpectIdleSend();
}

TEST_F(DeadDescriptorTest, SendToAPeerThatHasResetSleepsItsBudget) {
    m_Peer.Reset();
    AwaitHangUp();
    ExpectIdleSend();
}

TEST_F(DeadDescriptorTest, SendAfterOwnShutdownSleepsItsBudget) {
    ::shutdown(m_Fd, SHUT_WR);
    ExpectIdleSend();
}

TEST_F(DeadDescriptorTest, PeerThatResetsDuringASendLeavesItToSleep) {
    const std::string bytes(kTooMuch, 'x');
    std::thread resetter([&] {
        WaitFor([&] { return UnreadBytes(m_Peer.Socket()) > 0; });
        usleep(300000);
        m_Peer.Reset();
    });
    const Stopwatch watch;
    const SystemCalls calls;
    const int sent = m_Socket.send(bytes.data(), kTooMuch, 0);
    ExpectSteps(calls, watch);
    EXPECT_LT(sent, kTooMuch);
    EXPECT_GE(watch.Ms(), 5000);
    EXPECT_LT(watch.Ms(), 9000);
    resetter.join();
}

using SigPipeDeathTest = ThdSafeSocketTest;

// The process-wide setting may be anything; the flag of the call is what saves the application.
TEST_F(SigPipeDeathTest, SendToAClosedPeerDoesNotKill) {
    m_Peer.Reset();
    AwaitHangUp();
    EXPECT_EXIT(
        {
            signal(SIGPIPE, SIG_DFL);
            const int first = m_Socket.send("abc", 3, 0);
            const bool broken = ::send(m_Fd, "a", 1, MSG_NOSIGNAL) == -1 && errno == EPIPE;
            _exit(first == 0 && broken ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// That the test above would have been killed.
TEST_F(SigPipeDeathTest, TheSameSendWithoutTheFlagKills) {
    m_Peer.Reset();
    AwaitHangUp();
    EXPECT_EXIT(
        {
            signal(SIGPIPE, SIG_DFL);
            for (int i = 0; i < 3; ++i) {
                if (::send(m_Fd, "a", 1, 0) == 1)
                    break;
            }
            _exit(0);
        },
        testing::KilledBySignal(SIGPIPE), "");
}

// Two threads on one socket.

class ConcurrentSocketTest : public ThdSafeSocketTest {
protected:
    // Waits until a send that the peer does not read has filled the buffers of both ends.
    void AwaitFullBuffers() {
        int before = -1;
        ASSERT_TRUE(WaitFor([&] {
            usleep(50000);
            int queued = 0;
            ioctl(m_Fd, SIOCOUTQ, &queued);
            const bool still = queued > 0 && queued == before;
            before = queued;
            return still;
        }));
    }

    void Drain(size_t size) { EXPECT_EQ(size, m_Peer.Receive(size).size()); }
};

TEST_F(ConcurrentSocketTest, SendAndReceiveRunSideBySide) {
    const std::string bytes(kTooMuch / 2, 'x');
    std::atomic<int> sent(-1);
    std::thread sender(
        [&] { sent = m_Socket.send(bytes.data(), static_cast<int>(bytes.size()), 0); });
    AwaitFullBuffers();
    m_Peer.Send("abcd");
    EXPECT_EQ("abcd", Recv(4).bytes);
    EXPECT_EQ(-1, sent) << "the send is still under way";
    Drain(bytes.size());
    sender.join();
    EXPECT_EQ(static_cast<int>(bytes.size()), sent);
}

TEST_F(ConcurrentSocketTest, SendsOfTwoThreadsDoNotMix) {
    static constexpr int kSize = 8 * 1024 * 1024;
    std::vector<std::thread> senders;
    for (const char letter : {'a', 'b'}) {
        senders.emplace_back([this, letter] {
            const std::string bytes(static_cast<size_t>(kSize), letter);
            const int sent = m_Socket.send(bytes.data(), static_cast<int>(bytes.size()), 0);
            EXPECT_EQ(static_cast<int>(bytes.size()), sent);
        });
    }
    const std::string all = m_Peer.Receive(2 * kSize);
    for (std::thread& sender : senders)
        sender.join();
    ASSERT_EQ(static_cast<size_t>(2 * kSize), all.size());
    EXPECT_EQ(static_cast<size_t>(kSize), all.find_first_not_of(all[0]));
    EXPECT_EQ(std::string::npos, all.find_first_not_of(all[kSize], kSize));
}

TEST_F(ConcurrentSocketTest, ReceivesOfTwoThreadsDoNotMix) {
    std::string results[2];
    std::vector<std::thread> receivers;
    for (std::string& result : results) {
        receivers.emplace_back([this, &result] {
            char buffer[8];
            const int got = m_Socket.recv(buffer, 8, 0, 10000);
            result.assign(buffer, static_cast<size_t>(std::max(got, 0)));
        });
    }
    m_Peer.SendByteByByte("aaaaaaaabbbbbbbb");
    for (std::thread& receiver : receivers)
        receiver.join();
    std::sort(results, results + 2);
    EXPECT_EQ("aaaaaaaa", results[0]);
    EXPECT_EQ("bbbbbbbb", results[1]);
}

TEST_F(ConcurrentSocketTest, CloseWaitsForRunningRecv) {
    std::atomic<bool> goOn(true);
    std::atomic<int> got(-2);
    std::atomic<bool> closed(false);
    std::thread receiver([&] {
        char buffer[4];
        got = m_Socket.recv(buffer, 2, 0, goOn, 30000);
    });
    m_Peer.Send("a");
    // The byte has left the kernel: the receive is under way and waits for the second one.
    pollfd entry = {m_Fd, POLLIN, 0};
    ASSERT_TRUE(WaitFor([&] {
        int unread = -1;
        ioctl(m_Peer.Socket(), SIOCOUTQ, &unread);
        return unread == 0 && ::poll(&entry, 1, 0) == 0;
    }));
    std::thread closer([&] {
        m_Socket.close();
        closed = true;
    });
    usleep(150000);
    EXPECT_FALSE(closed);
    EXPECT_EQ(m_Fd, m_Socket.get()) << "read without a lock";
    EXPECT_TRUE(IsOpen(m_Fd));
    EXPECT_EQ(-2, got);
    goOn = false;
    receiver.join();
    closer.join();
    EXPECT_EQ(1, got) << "the descriptor lasted as long as the receive";
    EXPECT_FALSE(IsOpen(m_Fd));
}

TEST_F(ConcurrentSocketTest, CloseWaitsForRunningSend) {
    const std::string bytes(kTooMuch / 2, 'x');
    std::atomic<int> sent(-1);
    std::atomic<bool> closed(false);
    std::thread sender(
        [&] { sent = m_Socket.send(bytes.data(), static_cast<int>(bytes.size()), 0); });
    AwaitFullBuffers();
    std::thread closer([&] {
        m_Socket.close();
        closed = true;
    });
    usleep(150000);
    EXPECT_FALSE(closed);
    EXPECT_TRUE(IsOpen(m_Fd));
    Drain(bytes.size());
    sender.join();
    closer.join();
    EXPECT_EQ(static_cast<int>(bytes.size()), sent);
    EXPECT_FALSE(IsOpen(m_Fd));
    EXPECT_TRUE(m_Peer.ClientClosed());
}

TEST_F(ConcurrentSocketTest, CloseWaitsAReceivesTimeoutAtMost) {
    std::atomic<bool> received(false);
    std::thread receiver([&] {
        char buffer[4];
        m_Socket.recv(buffer, 4, 0, 1000);
        received = true;
    });
    usleep(50000);
    const Stopwatch watch;
    EXPECT_EQ(0, m_Socket.close());
    EXPECT_LT(watch.Ms(), 6000);
    receiver.join();
    EXPECT_TRUE(received);
}

TEST_F(ConcurrentSocketTest, SetWaitsForRunningRecvAndLeavesItTheOldSocket) {
    ScriptedPeer other(UniqueAddress(), 0);
    const int next = Connect(other);
    std::atomic<bool> set(false);
    std::string got;
    std::thread receiver([&] {
        char buffer[2];
        got.assign(buffer, static_cast<size_t>(std::max(m_Socket.recv(buffer, 2, 0, 30000), 0)));
    });
    m_Peer.Send("a");
    pollfd entry = {m_Fd, POLLIN, 0};
    ASSERT_TRUE(WaitFor([&] {
        int unread = -1;
        ioctl(m_Peer.Socket(), SIOCOUTQ, &unread);
        return unread == 0 && ::poll(&entry, 1, 0) == 0;
    }));
    std::thread setter([&] {
        m_Socket.set(next);
        set = true;
    });
    other.Send("no");
    usleep(100000);
    EXPECT_FALSE(set);
    m_Peer.Send("b");
    receiver.join();
    setter.join();
    EXPECT_EQ("ab", got);
    EXPECT_EQ("no", Recv(2).bytes);
}

}  // namespace
