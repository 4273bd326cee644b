#include <sys/socket.h>
#include <sys/time.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <cerrno>
#include <new>

#include "TeskClient/DescriptorSet.h"
#include "TeskClient/ProtocolInternals.h"
#include "TeskClient/WireFormat.h"

// The network thread. It is the only reader of the socket, completes each answer exactly once, and
// hands each event over exactly once. It ends when m_bRunning drops (teardown joins it) or when the
// link is lost (then it starts the close thread, for it cannot close what has to join it).
//
// A read that fails leaves its reason in errno (see ThdSafeSocket::recv): LoseLink() comes right
// after it, with nothing in between that could change errno.

using internals::kReadTimeoutMs;
using internals::OwnRole;
using internals::Role;
using internals::SleepSlice;

namespace {

// Bytes dropped before the lock is let go, so that a flood cannot keep SetCmdPrefix() out.
constexpr int kGarbageAtOnce = 1024;

bool IsBroken(int result) {
    return result == 0 || result == -1;
}

}  // namespace

void ProtocolBase::NetworkThread() {
    SR_LOG(kLogDebug, "NetworkThread begin sock:%d this:%p", m_Socket.get(),
           static_cast<void*>(this));
    std::string prefix;
    {
        boost::lock_guard<decltype(m_RecvMutex)> lock(m_RecvMutex);
        prefix.resize(m_strCmdPrefix.size());
    }
    std::string payload;
    // Not set again: select() leaves it at zero, and the slices below do the pacing.
    timeval timeout = {0, internals::kSliceMs * 1000};

    Step step = Step::Retry;
    while (m_bRunning && step != Step::LinkLost && IsPeerStillAlive()) {
        step = WaitReadable(&timeout);
        if (step == Step::Ready)
            step = ReadOneFrame(prefix, payload);
    }
    HandOverToCloseThread();
    SR_LOG(kLogDebug, "NetworkThread end sock:%d this:%p", m_Socket.get(),
           static_cast<void*>(this));
}

bool ProtocolBase::IsPeerStillAlive() {
    if (IsPeerAlive())
        return true;
    SR_LOG(kLogNotice, "Peer is treated as dead. Kick it out. sock:%d this:%p", m_Socket.get(),
           static_cast<void*>(this));
    return false;
}

ProtocolBase::Step ProtocolBase::WaitReadable(timeval* timeout) {
    const int sock = m_Socket.get();
    if (sock == -1) {
        errno = EBADF;
        return LoseLink(recorded::kSelectFailed);
    }
    DescriptorSet set(sock);
    set.Add(sock);
    const int ready = select(sock + 1, set.Get(), nullptr, nullptr, timeout);
    if (ready == -1)
        return LoseLink(recorded::kSelectFailed);
    if (ready == 0) {
        SleepSlice();
        return Step::Retry;
    }
    return Step::Ready;
}

// SyncToPrefix, OnPeerAlive, then a custom frame or a command byte and its payload.
ProtocolBase::Step ProtocolBase::ReadOneFrame(std::string& prefix, std::string& payload) {
    boost::lock_guard<decltype(m_RecvMutex)> lock(m_RecvMutex);
    if (!prefix.empty()) {
        const Step step = SyncToPrefix(prefix);
        if (step != Step::Ready)
            return step;
    }
    OnPeerAlive();
    errno = 0;
    if (!prefix.empty() && prefix != m_strCmdPrefix)
        return IsBroken(OnCustCommand()) ? LoseLink(recorded::kCustCommandFailed) : Step::Retry;

    // A peer that trickles its frame must not hold a teardown for more than the read in progress.
    char cmd = 0;
    if (m_bTornDown)
        return Step::Retry;
    if (IsBroken(m_Socket.recv(&cmd, 1, 0, kReadTimeoutMs)))
        return LoseLink(recorded::kReadCommandFailed);
    if (m_bTornDown)
        return Step::Retry;
    return TakeFrame(static_cast<unsigned char>(cmd), payload);
}

// Drops what stands in front of a prefix and consumes the prefix. m_RecvMutex held.
ProtocolBase::Step ProtocolBase::SyncToPrefix(std::string& prefix) {
    const int size = static_cast<int>(prefix.size());
    for (int dropped = 0; m_bRunning && dropped < kGarbageAtOnce; ++dropped) {
        const int got = m_Socket.recv(&prefix[0], size, MSG_PEEK, kReadTimeoutMs);
        if (IsBroken(got))
            return LoseLink(recorded::kPeekPrefixFailed);
        switch (wire::MatchPrefix(prefix, got, m_strCmdPrefix, m_strCustCmdPrefix)) {
            case wire::PrefixMatch::Command:
            case wire::PrefixMatch::Custom:
                if (IsBroken(m_Socket.recv(&prefix[0], size, 0, kReadTimeoutMs)))
                    return LoseLink(recorded::kTakePrefixFailed);
                return Step::Ready;
            case wire::PrefixMatch::Incomplete:
                SR_LOG(kLogDebug, "NetworkThread no enough data to match prefix %d sock:%d this:%p",
                       got, m_Socket.get(), static_cast<void*>(this));
                SleepSlice();
                return Step::Retry;
            case wire::PrefixMatch::Garbage:
                if (DropGarbageByte(static_cast<unsigned char>(prefix[0])) == Step::LinkLost)
                    return Step::LinkLost;
                break;
        }
    }
    return Step::Retry;
}

ProtocolBase::Step ProtocolBase::DropGarbageByte(unsigned char first) {
    SR_LOG(kLogNotice, "NetworkThread unknown prefix data 0x%02X sock:%d this:%p", first,
           m_Socket.get(), static_cast<void*>(this));
    char dropped = 0;
    if (IsBroken(m_Socket.recv(&dropped, 1, 0, kReadTimeoutMs)))
        return LoseLink(recorded::kDropGarbageFailed);
    return Step::Ready;
}

// Response, exceptional event or event. m_RecvMutex held.
ProtocolBase::Step ProtocolBase::TakeFrame(unsigned char cmd, std::string& payload) {
    bool answer = false;
    {
        boost::lock_guard<decltype(m_SendMutex)> lock(m_SendMutex);
        answer = cmd == m_nAnsCode;
        if (answer && ReadAnswer(cmd, payload) == Step::LinkLost)
            return Step::LinkLost;
    }
    if (answer) {
        m_AnsCond.notify_all();
        return Step::Retry;
    }
    if (m_CmdHandlers[cmd] == static_cast<CmdHandler>(&ProtocolBase::OnUnknownCommand)) {
        SR_LOG(kLogNotice, "<== NetworkThread got exceptional event 0x%02X sock:%d this:%p", cmd,
               m_Socket.get(), static_cast<void*>(this));
        return Step::Retry;
    }
    return TakeEvent(cmd, payload);
}

// A reader that runs out of memory breaks the link: the stream is out of step.
int ProtocolBase::ReadPayload(unsigned char cmd, std::string& payload) {
    errno = 0;
    try {
        const RecvHandler reader = m_RecvHandlers[cmd];
        return (this->*reader)(payload);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
}

// m_RecvMutex and m_SendMutex held: the reader's writes come before the caller sees m_nAnsCode
// clear.
ProtocolBase::Step ProtocolBase::ReadAnswer(unsigned char cmd, std::string& payload) {
    SR_LOG(kLogInfo, "<== NetworkThread got response 0x%02X sock:%d this:%p", cmd, m_Socket.get(),
           static_cast<void*>(this));
    if (IsBroken(ReadPayload(cmd, payload)))
        return LoseLink(recorded::kAnswerReaderFailed);
    m_nAnsCode = 0;
    return Step::Ready;
}

// m_RecvMutex held, m_SendMutex not.
ProtocolBase::Step ProtocolBase::TakeEvent(unsigned char cmd, std::string& payload) {
    if (IsBroken(ReadPayload(cmd, payload)))
        return LoseLink(recorded::kEventReaderFailed);
    SR_LOG(kLogInfo, "<== NetworkThread got event 0x%02X, len=%d sock:%d this:%p", cmd,
           static_cast<int>(payload.size()), m_Socket.get(), static_cast<void*>(this));
    if (!Queue(cmd, payload))
        return LoseLink(recorded::kEventReaderFailed);
    m_EventCond.notify_all();
    return Step::Retry;
}

// Events that nobody fetches may use up the memory.
bool ProtocolBase::Queue(unsigned char cmd, const std::string& payload) {
    try {
        boost::lock_guard<decltype(m_EventMutex)> lock(m_EventMutex);
        m_EventQueue.emplace_back(cmd, payload);
        return true;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return false;
    }
}

ProtocolBase::Step ProtocolBase::LoseLink(int line) {
    const int code = errno != 0 ? -errno : kErrPeerClosed;
    try {
        SetErrorAt(code, "", "", recorded::kEngineFile, line);
    } catch (const std::bad_alloc&) {
        // The code is recorded first; only its place is missing.
    }
    return Step::LinkLost;
}

void ProtocolBase::HandOverToCloseThread() {
    if (GetSocket() == -1)
        return;
    if (m_bRunning && DisposeOfCloseThread()) {
        const unsigned connection = m_nConnection;
        m_pCloseThread = internals::StartThread([this, connection] {
            OwnRole() = {this, Role::Close, connection};
            OnConnectClose();
        });
    }
    m_bRunning = false;
}

// Waits for an earlier close thread, which may itself be waiting to close this connection: then it
// has lowered m_bRunning, closes, and needs no successor. False in that case.
bool ProtocolBase::DisposeOfCloseThread() {
    const boost::posix_time::milliseconds slice(internals::kSliceMs);
    const boost::this_thread::disable_interruption nothingThrows;
    while (m_pCloseThread != nullptr && m_bRunning) {
        if (m_pCloseThread->timed_join(slice)) {
            delete m_pCloseThread;
            m_pCloseThread = nullptr;
        }
    }
    return m_bRunning;
}
