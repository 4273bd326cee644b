#include "TeskClient/ProtocolBase.h"

#include <algorithm>
#include <csignal>
#include <future>
#include <new>

#include "TeskClient/ProtocolInternals.h"
#include "common/PlatformShims.h"

// Construction, prefixes, defaults of the hooks, start and end of the threads. The rest by role:
// ProtocolConnection.cpp, ProtocolNetwork.cpp, ProtocolRequest.cpp, ProtocolDispatcher.cpp.

using internals::OwnRole;
using internals::Role;
using internals::StartThread;

namespace {

// exit() may run destructors on one of the object's own threads, when a callback called it. That
// thread cannot join itself; the process is ending, so it is let go.
void JoinOrLetGo(boost::thread** thread) {
    if (*thread != nullptr && (*thread)->get_id() == boost::this_thread::get_id()) {
        (*thread)->detach();
        delete *thread;
        *thread = nullptr;
    }
    ResetThreadPtr(thread);
}

}  // namespace

internals::ThreadRole& internals::OwnRole() {
    thread_local ThreadRole role = {nullptr, Role::Stranger, 0};
    return role;
}

internals::SignalsBlocked::SignalsBlocked() {
    sigset_t signals;
    sigfillset(&signals);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
        sigdelset(&signals, fault);
    pthread_sigmask(SIG_BLOCK, &signals, &m_Before);
}

bool timed_wait(boost::condition_variable_any& condition, boost::recursive_mutex& mutex, int ms) {
    const boost::system_time deadline =
        boost::get_system_time() + boost::posix_time::milliseconds(ms);
    const boost::this_thread::disable_interruption nothingThrows;
    boost::unique_lock<boost::recursive_mutex> lock(mutex);
    return condition.timed_wait(lock, deadline);
}

ProtocolBase::ProtocolBase()
    : m_pThreadGroup(nullptr),
      m_pDispatcherThread(nullptr),
      m_pCloseThread(nullptr),
      m_bRunning(false),
      m_nAnsCode(0),
      m_strSendBuf(1, '\0'),
      m_bFuncPending(false),
      m_nSndRcvTimeout(30),
      m_bClosing(false),
      m_bNoDispatcher(false),
      m_nConnectTimeout(10),
      m_nConnection(0),
      m_nClosers(0),
      m_nPumping(0),
      m_bTornDown(false),
      m_bEnded(false) {
    std::fill_n(m_CmdHandlers, 256, static_cast<CmdHandler>(&ProtocolBase::OnUnknownCommand));
    std::fill_n(m_RecvHandlers, 256, &ProtocolBase::RecvUnknownData);
    std::signal(SIGPIPE, SIG_IGN);
}

ProtocolBase::~ProtocolBase() {
    EndThreads();
}

void ProtocolBase::EndThreads() {
    if (m_bEnded.exchange(true))
        return;
    ProtocolBase::CloseConnect();
    // Also when an own thread may not close: the others still end.
    m_bRunning = false;
    {
        // An opener that comes late looks at the same thread. An own thread does not wait for the
        // lock: its holder may be joining it.
        ConnLock lock(m_ConnMutex, boost::defer_lock);
        if (internals::RoleTowards(this) == Role::Stranger)
            lock.lock();
        JoinOrLetGo(&m_pDispatcherThread);
    }
    JoinOrLetGo(&m_pCloseThread);
}

int ProtocolBase::InitThread(bool bNoDispatcher) {
    if (m_bEnded) {
        CloseConnect();
        return SR_RAISE(kErrStillClosing, "", "");
    }
    // Its callback may be waiting for a lock or an answer, but sees m_bRunning and m_nConnection.
    ResetThreadPtr(&m_pDispatcherThread);
    m_bTornDown = false;
    m_bRunning = true;
    m_pThreadGroup = new (std::nothrow) boost::thread_group;
    if (m_pThreadGroup == nullptr) {
        CloseConnect();
        return SR_RAISE(kErrCreateObject, "m_pThreadGroup", "");
    }
    SR_RAISE(0, "", "");

    const unsigned connection = m_nConnection;
    const internals::SignalsBlocked blocked;
    if (!bNoDispatcher) {
        {
            boost::lock_guard<decltype(m_EventMutex)> lock(m_EventMutex);
            m_EventQueue.clear();
        }
        m_pDispatcherThread = StartThread([this, connection] {
            OwnRole() = {this, Role::Dispatcher, connection};
            DispatcherThread();
        });
        if (m_pDispatcherThread == nullptr) {
            CloseConnect();
            return SR_RAISE(kErrCreateObject, "m_pDispatcherThread", "");
        }
    }

    // The network thread starts behind a gate: an error that it meets at once must not be cleared
    // below.
    std::promise<void> gate;
    const std::shared_future<void> opened = gate.get_future().share();
    boost::thread* network = StartThread([this, connection, opened] {
        opened.wait();
        OwnRole() = {this, Role::Network, connection};
        NetworkThread();
    });
    if (network == nullptr) {
        CloseConnect();
        return SR_RAISE(kErrCreateObject, "m_pThreadGroup", "");
    }
    m_pThreadGroup->add_thread(network);
    SR_RAISE(0, "", "");
    gate.set_value();
    return 0;
}

void ProtocolBase::SetCmdPrefix(const char* prefix, int len) {
    SR_LOG(kLogDebug, "SetCmdPrefix %d", len);
    boost::lock_guard<decltype(m_RecvMutex)> recvLock(m_RecvMutex);
    boost::lock_guard<decltype(m_SendMutex)> sendLock(m_SendMutex);
    m_strCmdPrefix.assign(prefix, static_cast<size_t>(std::max(len, 0)));
    m_strSendBuf.resize(m_strCmdPrefix.size() + 1);
    m_strSendBuf.replace(0, m_strCmdPrefix.size(), m_strCmdPrefix);
}

void ProtocolBase::SetCustCmdPrefix(const char* prefix) {
    SR_LOG(kLogDebug, "SetCustCmdPrefix");
    m_strCustCmdPrefix.assign(prefix, m_strCmdPrefix.size());
}

int ProtocolBase::SetSndRcvTimeout(int sec) {
    SR_LOG(kLogDebug, "SetSndRcvTimeout %d", sec);
    m_nSndRcvTimeout = sec;
    return 0;
}

bool ProtocolBase::IsFuncPending() {
    return m_bFuncPending;
}

bool ProtocolBase::IsConnected() {
    return m_Socket.get() != -1;
}

int ProtocolBase::GetSocket() {
    return m_Socket.get();
}

int ProtocolBase::ReleaseSocket() {
    return m_Socket.release();
}

void ProtocolBase::OnConnectClose() {
    SR_LOG(kLogDebug, "OnConnectClose sock:%d this:%p", m_Socket.get(), static_cast<void*>(this));
    CloseConnect();
}

void ProtocolBase::HandleRetVal(unsigned char, int) {}

int ProtocolBase::OnCustCommand() {
    return 1;
}

void ProtocolBase::OnPeerAlive() {}

int ProtocolBase::HandShake(int) {
    return 0;
}

bool ProtocolBase::IsPeerAlive() {
    return true;
}

int ProtocolBase::OnUnknownCommand(char*) {
    SR_LOG(kLogDebug, "OnUnknownCommand sock:%d this:%p", m_Socket.get(), static_cast<void*>(this));
    return -1;
}

int ProtocolBase::RecvUnknownData(std::string& data) {
    data.clear();
    return 1;
}
