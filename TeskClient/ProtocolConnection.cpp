#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "TeskClient/DescriptorSet.h"
#include "TeskClient/ProtocolInternals.h"
#include "common/PlatformShims.h"

// Connecting and closing.
//
// m_nConnection tells one connection from the next: it changes when a descriptor is adopted and
// when it is closed. Whoever belongs to a connection (a request that waits, the dispatcher, the
// close thread) remembers its number and lets go as soon as the number has changed; so a close
// thread that comes late cannot close its successor, and nobody waits for a thread that waits for
// them.

using internals::Role;
using internals::RoleTowards;
using internals::SleepSlice;

struct SR_HIDDEN ProtocolBase::Candidate {
    Candidate(int fd, unsigned short portNumber) : sock(fd), port(portNumber), owner(fd) {}

    int sock;
    unsigned short port;
    auto_closesocket owner;
};

bool ProtocolBase::WouldJoinItself() const {
    const Role role = RoleTowards(this);
    return role == Role::Network || role == Role::Dispatcher;
}

int ProtocolBase::RefuseOwnThread() {
    return SR_RAISE(kErrReentry, "ProtocolBase::OpenConnect", "");
}

// Takes m_ConnMutex, on an own thread by polling. False when the connection that the own thread
// belongs to is gone: then there is nothing left for it to do.
bool ProtocolBase::LockOwnConnection(ConnLock& lock) {
    if (RoleTowards(this) == Role::Stranger) {
        lock.lock();
        return true;
    }
    const unsigned own = internals::OwnRole().connection;
    while (m_nConnection == own && !lock.try_lock())
        SleepSlice();
    return m_nConnection == own;
}

int ProtocolBase::OpenConnect(const char* host,
                              const std::vector<unsigned short>& vecPort,
                              bool bNoDispatcher,
                              int nTimeout) {
    if (WouldJoinItself())
        return RefuseOwnThread();
    CloseConnect();
    return OpenConnectImpl(host, vecPort, bNoDispatcher, nTimeout);
}

int ProtocolBase::OpenConnectImpl(const char* host,
                                  const std::vector<unsigned short>& vecPort,
                                  bool bNoDispatcher,
                                  int nTimeout) {
    if (WouldJoinItself())
        return RefuseOwnThread();
    SR_LOG(kLogDebug, "OpenConnect %s %d %d %d this:%p", host, static_cast<int>(vecPort.size()),
           bNoDispatcher, nTimeout, static_cast<void*>(this));
    // One lock over both steps: a second caller must not start threads on the first one's socket.
    boost::lock_guard<decltype(m_ConnMutex)> lock(m_ConnMutex);
    m_bNoDispatcher = bNoDispatcher;
    BeginStep();
    const int opened = OpenSocket(host, vecPort, nTimeout);
    if (opened < 0)
        return CodeOfFailure(opened);
    return InitThread(bNoDispatcher);
}

int ProtocolBase::OpenSocket(const char* host,
                             const std::vector<unsigned short>& vecPort,
                             int nTimeout) {
    if (WouldJoinItself())
        return RefuseOwnThread();
    SR_LOG(kLogDebug, "OpenSocket %s %d %d this:%p", host, static_cast<int>(vecPort.size()),
           nTimeout, static_cast<void*>(this));
    boost::lock_guard<decltype(m_ConnMutex)> lock(m_ConnMutex);
    if (IsReentered([](ProtocolBase& self) { return self.IsFuncPending(); }))
        return SR_RAISE(kErrReentry, "ProtocolBase::OpenSocket", "");
    if (m_Socket.get() != -1 || m_bEnded)
        return SR_RAISE(kErrStillClosing, "", "");
    if (vecPort.empty())
        return SR_RAISE(kErrNoPorts, "", "");

    std::vector<Candidate> candidates;
    if (const int failed = StartConnects(host, vecPort, candidates))
        return failed;
    const bool writable = ConnectFirst(candidates, nTimeout);
    if (m_Socket.get() == -1) {
        if (writable)
            return SR_RAISE(kErrHandShake, "", "");
        std::string ports;
        for (const unsigned short port : vecPort)
            ports += std::to_string(port) + " ";
        return SR_RAISE(kErrConnect, host, ports.c_str());
    }

    m_strHost = host;
    m_vecPort = vecPort;
    m_nConnectTimeout = nTimeout;
    return SR_RAISE(0, "", "");
}

// One non-blocking connect for each port. 0, or the error recorded.
int ProtocolBase::StartConnects(const char* host,
                                const std::vector<unsigned short>& vecPort,
                                std::vector<Candidate>& candidates) {
    for (size_t i = 0; i < vecPort.size(); ++i) {
        if (i > 0)
            SleepSlice();
        const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
        if (sock == -1) {
            const int code = -errno;
            return SR_RAISE(code, "", "");
        }
        candidates.emplace_back(sock, vecPort[i]);
        ConfigSocket(sock);

        int flags = fcntl(sock, F_GETFL, 0);
        if (flags == -1) {
            SR_LOG(kLogWarning, "OpenConnect fcntl(Socket, F_GETFL, 0) failed %d", errno);
            flags = 0;
        }
        if (fcntl(sock, F_SETFL, flags | O_NONBLOCK) == -1)
            SR_LOG(kLogWarning, "OpenConnect fcntl(Socket, F_SETFL, flags | O_NONBLOCK) failed %d",
                   errno);

        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(vecPort[i]);
        address.sin_addr.s_addr = inet_addr(host);
        connect(sock, reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
    return 0;
}

// Adopts the first candidate that is writable and passes the handshake. Returns whether any became
// writable; m_Socket tells whether one was adopted.
bool ProtocolBase::ConnectFirst(std::vector<Candidate>& candidates, int nTimeout) {
    bool writable = false;
    const unsigned int start = GetTickCount();
    const long long limit = 1000LL * nTimeout;
    // Not set again after the first wait: select() leaves it at zero, later passes poll, and the
    // slices below do the pacing.
    timeval timeout = {0, internals::kSliceMs * 1000};
    m_bClosing = false;
    while (GetTickCount() - start < limit && !m_bClosing && !m_bEnded) {
        if (TakeFirstWritable(candidates, &timeout, writable))
            break;
        PumpMessages(true);
    }
    return writable;
}

// One pass over the candidates. True when one was adopted.
bool ProtocolBase::TakeFirstWritable(std::vector<Candidate>& candidates,
                                     timeval* timeout,
                                     bool& writable) {
    int largest = 0;
    for (const Candidate& candidate : candidates)
        largest = std::max(largest, candidate.sock);
    DescriptorSet set(largest);
    for (const Candidate& candidate : candidates)
        set.Add(candidate.sock);
    if (select(largest + 1, nullptr, set.Get(), nullptr, timeout) < 1) {
        SleepSlice();
        return false;
    }
    for (Candidate& candidate : candidates) {
        if (!set.Has(candidate.sock))
            continue;
        // Refused connections are writable too: a handshake has to tell.
        writable = true;
        if (HandShake(candidate.sock) < 0)
            continue;
        RestoreBlocking(candidate.sock);
        candidate.owner.released = true;
        Adopt(candidate.sock);
        SR_LOG(kLogInfo, "OpenSocket use port# %hu sock:%d this:%p", candidate.port, candidate.sock,
               static_cast<void*>(this));
        return true;
    }
    return false;
}

void ProtocolBase::RestoreBlocking(int sock) {
    int flags = fcntl(sock, F_GETFL, 0);
    if (flags == -1) {
        SR_LOG(kLogWarning, "OpenConnect fcntl(vecSocket[i], F_GETFL, 0) failed %d", errno);
        flags = 0;
    }
    if (fcntl(sock, F_SETFL, flags & ~O_NONBLOCK) == -1)
        SR_LOG(kLogCritical,
               "OpenConnect fcntl(vecSocket[i], F_SETFL, flags & (~O_NONBLOCK)) failed %d", errno);
}

// m_ConnMutex held. The send lock makes a frame and its request belong to one connection.
void ProtocolBase::Adopt(int sock) {
    ++m_nClosers;
    {
        boost::lock_guard<decltype(m_SendMutex)> lock(m_SendMutex);
        SettleWaiting();
        m_nAnsCode = 0;
        m_Socket = sock;
        ++m_nConnection;
    }
    --m_nClosers;
    ClaimConnection();
}

// m_ConnMutex held.
void ProtocolBase::CloseSocket() {
    ++m_nClosers;
    if (m_Socket.get() != -1)
        m_Socket.close();
    ++m_nConnection;
    --m_nClosers;
}

// A close thread that replaces the connection that it was started for belongs to the next one.
void ProtocolBase::ClaimConnection() {
    if (RoleTowards(this) == Role::Close)
        internals::OwnRole().connection = m_nConnection;
}

bool ProtocolBase::IsOfEarlierConnection() const {
    return RoleTowards(this) != Role::Stranger && internals::OwnRole().connection != m_nConnection;
}

void ProtocolBase::ConfigSocket(int sock) {
    const int on = 1;
    const timeval timeout = {m_nSndRcvTimeout, 0};
    if (setsockopt(sock, SOL_SOCKET, SO_OOBINLINE, &on, sizeof on) == -1)
        SR_LOG(kLogWarning, "InitSocket setsockopt(SO_OOBINLINE) failed %d", errno);
    if (setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == -1)
        SR_LOG(kLogWarning, "InitSocket setsockopt(TCP_NODELAY) failed %d", errno);
    if (setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) == -1)
        SR_LOG(kLogWarning, "InitSocket setsockopt(SO_SNDTIMEO) failed %d", errno);
    if (setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) == -1)
        SR_LOG(kLogWarning, "InitSocket setsockopt(SO_RCVTIMEO) failed %d", errno);
}

int ProtocolBase::InitSocket(int sock, bool bNoDispatcher) {
    if (WouldJoinItself())
        return RefuseOwnThread();
    SR_LOG(kLogDebug, "InitSocket sock:%d this:%p %d", sock, static_cast<void*>(this),
           bNoDispatcher);
    boost::lock_guard<decltype(m_ConnMutex)> lock(m_ConnMutex);
    if (IsReentered([](ProtocolBase& self) { return self.IsFuncPending(); }))
        return SR_RAISE(kErrReentry, "ProtocolBase::InitSocket", "");
    CloseConnect();
    if (m_Socket.get() != -1 || m_bEnded)
        return SR_RAISE(kErrStillClosing, "", "");
    Adopt(sock);
    ConfigSocket(sock);
    return InitThread(bNoDispatcher);
}

int ProtocolBase::ReConnect() {
    if (WouldJoinItself())
        return RefuseOwnThread();
    ConnLock lock(m_ConnMutex, boost::defer_lock);
    // A close thread that comes late finds what a closed connection leaves.
    const std::string host = LockOwnConnection(lock) ? m_strHost : "";
    SR_LOG(kLogDebug, "ReConnect %s sock:%d this:%p", host.c_str(), m_Socket.get(),
           static_cast<void*>(this));
    if (host.empty())
        return SR_RAISE(kErrInitObject, "m_strHost", "");
    if (m_Socket.get() == -1)
        return SR_RAISE(kErrInitObject, "Invalid m_Socket", "");

    // The threads of a connection that is alive end first: two network threads on one socket would
    // tear its frames apart.
    LowerRunning();
    EndNetworkThread();
    CloseSocket();
    ClaimConnection();
    const std::vector<unsigned short> ports = m_vecPort;  // a copy: opening writes the member
    return OpenConnectImpl(host.c_str(), ports, m_bNoDispatcher, m_nConnectTimeout);
}

int ProtocolBase::CloseConnect() {
    SR_LOG(kLogDebug, "CloseConnect %d %d sock:%d this:%p", m_bRunning.load(), m_bClosing.load(),
           m_Socket.get(), static_cast<void*>(this));
    const Role role = RoleTowards(this);
    if (role == Role::Network)
        return RefuseOwnThread();
    // Before the lock: its holder may be connecting and leaves its loop for this. An own thread
    // waits to know that the connection is still its own.
    if (role == Role::Stranger)
        LowerRunning();
    ConnLock lock(m_ConnMutex, boost::defer_lock);
    if (!LockOwnConnection(lock))
        return 0;
    LowerRunning();
    EndNetworkThread();
    CloseSocket();
    m_strHost.clear();
    return 0;
}

void ProtocolBase::LowerRunning() {
    m_bTornDown = true;
    m_bClosing = true;
    m_bRunning = false;
}

// m_ConnMutex held, m_bRunning lowered.
void ProtocolBase::EndNetworkThread() {
    if (m_pThreadGroup == nullptr)
        return;
    const boost::this_thread::disable_interruption nothingThrows;
    m_pThreadGroup->join_all();
    delete m_pThreadGroup;
    m_pThreadGroup = nullptr;
}
