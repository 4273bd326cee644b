#include "TeskClient/ThdSafeSocket.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/PlatformShims.h"

namespace {

constexpr unsigned int kSendBudgetMs = 5000;
constexpr int kStepMs = 5;

void SleepStep() {
    usleep(kStepMs * 1000);
}

}  // namespace

ThdSafeSocket::ThdSafeSocket() : m_nSocket(-1) {}

ThdSafeSocket::ThdSafeSocket(int fd) : m_nSocket(fd) {}

ThdSafeSocket::~ThdSafeSocket() = default;

int ThdSafeSocket::close() {
    boost::lock_guard<decltype(m_SendLock)> sendLock(m_SendLock);
    boost::lock_guard<decltype(m_RecvLock)> recvLock(m_RecvLock);
    const int fd = m_nSocket.exchange(-1);
    // A descriptor that was set to linger would block here until its bytes are acknowledged. Zero
    // seconds do not block: they ask for a reset.
    linger option = {};
    socklen_t size = sizeof option;
    if (getsockopt(fd, SOL_SOCKET, SO_LINGER, &option, &size) == 0 && option.l_linger > 0) {
        option.l_onoff = 0;
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &option, sizeof option);
    }
    return ::close(fd);
}

void ThdSafeSocket::set(int fd) {
    boost::lock_guard<decltype(m_SendLock)> sendLock(m_SendLock);
    boost::lock_guard<decltype(m_RecvLock)> recvLock(m_RecvLock);
    close();
    m_nSocket = fd;
    m_strPeek.clear();
}

ThdSafeSocket& ThdSafeSocket::operator=(int fd) {
    set(fd);
    return *this;
}

int ThdSafeSocket::send(const char* buf, int len, int flags) {
    boost::lock_guard<decltype(m_SendLock)> lock(m_SendLock);
    const unsigned int start = GetTickCount();
    int remaining = len;
    do {
        const ssize_t sent =
            ::send(m_nSocket, buf + (len - remaining), static_cast<size_t>(remaining),
                   flags | MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent > 0)
            remaining -= static_cast<int>(sent);
        else if (sent < 0 && errno == EAGAIN)
            WaitReady(POLLOUT);
        else
            SleepStep();
    } while (remaining > 0 && GetTickCount() - start < kSendBudgetMs);
    return len - remaining;
}

int ThdSafeSocket::recv(
    char* buf, int len, int flags, const std::atomic<bool>& bContinue, int timeoutMs) {
    return Receive(buf, len, flags, bContinue, timeoutMs);
}

int ThdSafeSocket::recv(char* buf, int len, int flags, bool& bContinue, int timeoutMs) {
    return Receive(buf, len, flags, bContinue, timeoutMs);
}

int ThdSafeSocket::recv(char* buf, int len, int flags, int timeoutMs) {
    return Receive(buf, len, flags, true, timeoutMs);
}

template <class Flag>
int ThdSafeSocket::Receive(char* buf, int len, int flags, const Flag& bContinue, int timeoutMs) {
    boost::lock_guard<decltype(m_RecvLock)> lock(m_RecvLock);
    const bool peek = (flags & MSG_PEEK) != 0;
    int remaining = len - TakePeeked(buf, len, peek);
    if (remaining == 0)
        return len;

    const int errnoBefore = errno;
    const unsigned int start = GetTickCount();
    do {
        const ssize_t got =
            ::recv(m_nSocket, buf + (len - remaining), static_cast<size_t>(remaining),
                   (flags & ~MSG_PEEK) | MSG_DONTWAIT);
        if (got == 0) {
            errno = 0;
            return 0;
        }
        if (got < 0 && errno != EINTR && errno != EAGAIN)
            return -1;
        if (got > 0) {
            if (peek)
                m_strPeek.append(buf + (len - remaining), static_cast<size_t>(got));
            remaining -= static_cast<int>(got);
            if (remaining < 1) {
                // Attempts that found nothing yet are no errors of the caller's read.
                errno = errnoBefore;
                return len;
            }
        }
        if (got < 0 && errno == EINTR)
            SleepStep();
        else
            WaitReady(POLLIN);
    } while (GetTickCount() - start < static_cast<unsigned int>(std::max(timeoutMs, 0)) &&
             bContinue);
    errno = EAGAIN;
    return len - remaining;
}

int ThdSafeSocket::available() {
    boost::lock_guard<decltype(m_RecvLock)> lock(m_RecvLock);
    int inKernel = 0;
    if (ioctl(m_nSocket, FIONREAD, &inKernel) == -1)
        inKernel = 0;
    return static_cast<int>(m_strPeek.size()) + inKernel;
}

int ThdSafeSocket::TakePeeked(char* buf, int len, bool peek) {
    const size_t taken = std::min(m_strPeek.size(), static_cast<size_t>(len));
    std::memcpy(buf, m_strPeek.data(), taken);
    if (!peek)
        m_strPeek.erase(0, taken);
    return static_cast<int>(taken);
}

// The step that a full or empty socket waits; ends early once the kernel has room or bytes. A
// descriptor that only reports trouble is slept on, or it would be polled in a busy loop.
void ThdSafeSocket::WaitReady(short events) const {
    pollfd descriptor = {m_nSocket, events, 0};
    if (::poll(&descriptor, 1, kStepMs) != 0 && (descriptor.revents & events) == 0)
        SleepStep();
}

auto_closesocket::auto_closesocket(const auto_closesocket& other)
    : released(other.released), m_nSocket(other.m_nSocket) {
    other.m_nSocket = -1;
}

auto_closesocket& auto_closesocket::operator=(const auto_closesocket& other) {
    if (this != &other) {
        Close();
        released = other.released;
        m_nSocket = other.m_nSocket;
        other.m_nSocket = -1;
    }
    return *this;
}

auto_closesocket::~auto_closesocket() {
    Close();
}

void auto_closesocket::Close() {
    if (!released && m_nSocket != -1)
        ::close(m_nSocket);
}
