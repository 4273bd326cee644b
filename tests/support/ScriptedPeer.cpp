#include "tests/support/ScriptedPeer.h"

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

// gcc tells of its sanitizers by macros, clang by features.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define SR_SLOW_BUILD
#endif
#endif
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__) || defined(SR_EMULATED)
#define SR_SLOW_BUILD
#endif

namespace sr_test {

namespace {

using Clock = std::chrono::steady_clock;

constexpr milliseconds kSendLimit(10000);

double SlowDown() {
#ifdef SR_SLOW_BUILD
    const double build = 3.0;
#else
    const double build = 1.0;
#endif
    const char* machine = std::getenv("SR_TEST_SLOWDOWN");
    const double factor = machine != nullptr ? std::strtod(machine, nullptr) : 1.0;
    return factor > 0.0 ? build * factor : build;
}

[[noreturn]] void Fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), "ScriptedPeer: " + what);
}

// Waits for one of `events`; false when `deadline` has passed.
bool WaitUntil(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
        pollfd entry = {fd, events, 0};
        const int ready = ::poll(&entry, 1, left > 0 ? static_cast<int>(left) + 1 : 0);
        if (ready > 0)
            return true;
        if (ready < 0 && errno != EINTR)
            Fail("poll");
        if (left <= 0)
            return false;
    }
}

// The 127.a.b of this process. A process id does not fit into the two bytes, so a name that lives
// as long as the process, in the namespace of the same loopback network, settles who has a block.
bool ClaimBlock(unsigned block) {
    sockaddr_un name = {};
    name.sun_family = AF_UNIX;
    const int length =
        std::snprintf(name.sun_path + 1, sizeof name.sun_path - 1, "sr-test-127.%u", block);
    const int claim = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (claim < 0)
        Fail("socket");
    const auto size =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + static_cast<size_t>(length));
    if (::bind(claim, reinterpret_cast<sockaddr*>(&name), size) == 0)
        return true;  // stays open on purpose: it is the claim
    if (errno != EADDRINUSE)
        Fail("bind");
    ::close(claim);
    return false;
}

unsigned NextOwnBlock(unsigned start) {
    constexpr unsigned kBlocks = 0xffff;  // 127.0.0 is left to others
    for (unsigned i = 0; i < kBlocks; ++i) {
        const unsigned block = (start + i) % kBlocks + 1;
        if (ClaimBlock(block))
            return block;
    }
    throw std::runtime_error("ScriptedPeer: no loopback address is left");
}

sockaddr_in SocketAddress(const std::string& address, uint16_t port) {
    sockaddr_in name = {};
    name.sin_family = AF_INET;
    name.sin_port = htons(port);
    if (::inet_pton(AF_INET, address.c_str(), &name.sin_addr) != 1)
        throw std::invalid_argument("ScriptedPeer: " + address + " is no address");
    return name;
}

void CloseDescriptor(int& fd) {
    if (fd != -1)
        ::close(fd);
    fd = -1;
}

// Reads away what has come; a close with unread bytes would send a reset.
void Drain(int fd) {
    char bytes[4096];
    while (::recv(fd, bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
    }
}

}  // namespace

milliseconds Stretched(milliseconds time) {
    static const double factor = SlowDown();
    return milliseconds(static_cast<milliseconds::rep>(static_cast<double>(time.count()) * factor));
}

bool WaitFor(const std::function<bool()>& condition, milliseconds limit) {
    const Clock::time_point deadline = Clock::now() + Stretched(limit);
    while (!condition()) {
        if (Clock::now() >= deadline)
            return condition();
        std::this_thread::sleep_for(milliseconds(1));
    }
    return true;
}

std::string UniqueAddress() {
    static std::mutex mutex;
    static pid_t owner = 0;
    static unsigned block = 0;
    static unsigned last = 0;

    const std::lock_guard<std::mutex> lock(mutex);
    if (owner != ::getpid()) {  // the first call, or the first one after a fork
        owner = ::getpid();
        block = NextOwnBlock(static_cast<unsigned>(owner));
        last = 0;
    } else if (last == 254) {
        block = NextOwnBlock(block);
        last = 0;
    }
    ++last;
    return "127." + std::to_string(block >> 8) + "." + std::to_string(block & 0xff) + "." +
           std::to_string(last);
}

std::string Hex(const std::string& digits) {
    std::string bytes;
    int high = -1;
    for (const char c : digits) {
        if (c == ' ' || c == '\n')
            continue;
        int value = 0;
        if (c >= '0' && c <= '9')
            value = c - '0';
        else if (c >= 'a' && c <= 'f')
            value = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            value = c - 'A' + 10;
        else
            throw std::invalid_argument("Hex: no hex digit in " + digits);
        if (high < 0) {
            high = value;
        } else {
            bytes.push_back(static_cast<char>(high << 4 | value));
            high = -1;
        }
    }
    if (high >= 0)
        throw std::invalid_argument("Hex: half a byte in " + digits);
    return bytes;
}

std::string Padded(const std::string& bytes, size_t size) {
    if (bytes.size() > size)
        throw std::invalid_argument("Padded: more bytes than room");
    std::string padded = bytes;
    padded.resize(size, '\0');
    return padded;
}

ScriptedPeer::ScriptedPeer(const std::string& address, uint16_t port)
    : m_Address(address), m_Port(port), m_Listener(-1), m_Client(-1) {
    sockaddr_in name = SocketAddress(address, port);
    m_Listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_Listener < 0)
        Fail("socket");
    const int on = 1;
    ::setsockopt(m_Listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    socklen_t size = sizeof name;
    if (::bind(m_Listener, reinterpret_cast<sockaddr*>(&name), size) != 0 ||
        ::listen(m_Listener, 16) != 0 ||
        ::getsockname(m_Listener, reinterpret_cast<sockaddr*>(&name), &size) != 0) {
        const int error = errno;
        CloseDescriptor(m_Listener);
        errno = error;
        Fail("listening on " + address + ":" + std::to_string(port));
    }
    m_Port = ntohs(name.sin_port);
}

ScriptedPeer::~ScriptedPeer() {
    CloseDescriptor(m_Client);
    CloseDescriptor(m_Listener);
}

bool ScriptedPeer::Accept(milliseconds limit) {
    if (m_Listener == -1)
        throw std::logic_error("ScriptedPeer: not listening");
    const Clock::time_point deadline = Clock::now() + Stretched(limit);
    while (WaitUntil(m_Listener, POLLIN, deadline)) {
        const int client = ::accept4(m_Listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client >= 0) {
            const int on = 1;
            ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            CloseDescriptor(m_Client);
            m_Client = client;
            return true;
        }
        // A client that has gone again before it was taken is none.
        if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED)
            Fail("accept");
    }
    return false;
}

std::string ScriptedPeer::Receive(size_t size, milliseconds limit) {
    if (m_Client == -1)
        throw std::logic_error("ScriptedPeer: no client");
    const Clock::time_point deadline = Clock::now() + Stretched(limit);
    std::string bytes;
    while (bytes.size() < size && WaitUntil(m_Client, POLLIN, deadline)) {
        char piece[16384];
        const ssize_t got =
            ::recv(m_Client, piece, std::min(sizeof piece, size - bytes.size()), MSG_DONTWAIT);
        if (got > 0)
            bytes.append(piece, static_cast<size_t>(got));
        else if (got == 0 || (errno != EAGAIN && errno != EINTR))
            break;
    }
    return bytes;
}

std::string ScriptedPeer::ReceiveAllWithin(milliseconds time) {
    if (m_Client == -1)
        throw std::logic_error("ScriptedPeer: no client");
    const Clock::time_point deadline = Clock::now() + time;
    std::string bytes;
    while (WaitUntil(m_Client, POLLIN, deadline)) {
        char piece[16384];
        const ssize_t got = ::recv(m_Client, piece, sizeof piece, MSG_DONTWAIT);
        if (got > 0)
            bytes.append(piece, static_cast<size_t>(got));
        else if (got == 0 || (errno != EAGAIN && errno != EINTR))
            break;
    }
    return bytes;
}

void ScriptedPeer::Send(const std::string& bytes) {
    if (m_Client == -1)
        throw std::logic_error("ScriptedPeer: no client");
    const Clock::time_point deadline = Clock::now() + Stretched(kSendLimit);
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t step =
            ::send(m_Client, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (step > 0) {
            sent += static_cast<size_t>(step);
        } else if (errno == EPIPE || errno == ECONNRESET) {
            return;  // the client has gone, as many tests have it do
        } else if (errno != EAGAIN && errno != EINTR) {
            Fail("send");
        } else if (!WaitUntil(m_Client, POLLOUT, deadline)) {
            throw std::runtime_error("ScriptedPeer: the client does not read");
        }
    }
}

void ScriptedPeer::SendSplitAt(const std::string& bytes,
                               const std::vector<size_t>& offsets,
                               milliseconds pause) {
    std::vector<size_t> ends = offsets;
    ends.push_back(bytes.size());
    size_t begin = 0;
    for (const size_t end : ends) {
        if (end < begin || end > bytes.size())
            throw std::invalid_argument("ScriptedPeer: offsets must rise and lie in the bytes");
        if (end == begin)
            continue;
        Send(bytes.substr(begin, end - begin));
        WaitFor([this] {
            int unsent = 0;
            return ::ioctl(m_Client, SIOCOUTQNSD, &unsent) != 0 || unsent == 0;
        });
        begin = end;
        if (begin < bytes.size())
            std::this_thread::sleep_for(pause);
    }
}

void ScriptedPeer::SendByteByByte(const std::string& bytes) {
    std::vector<size_t> offsets;
    for (size_t i = 1; i < bytes.size(); ++i)
        offsets.push_back(i);
    SendSplitAt(bytes, offsets, milliseconds(1));
}

bool ScriptedPeer::ClientClosed(milliseconds limit) {
    if (m_Client == -1)
        throw std::logic_error("ScriptedPeer: no client");
    // Hang-ups show here even behind bytes that nobody has read yet.
    return WaitUntil(m_Client, POLLRDHUP, Clock::now() + Stretched(limit));
}

void ScriptedPeer::Close() {
    if (m_Client == -1)
        return;
    Drain(m_Client);
    ::shutdown(m_Client, SHUT_WR);
    Drain(m_Client);
    CloseDescriptor(m_Client);
}

void ScriptedPeer::Reset() {
    if (m_Client == -1)
        return;
    const linger abort = {1, 0};
    ::setsockopt(m_Client, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    CloseDescriptor(m_Client);
}

void ScriptedPeer::StopListening() {
    CloseDescriptor(m_Listener);
}

}  // namespace sr_test
