#include <algorithm>
#include <cerrno>

#include "TeskClient/ProtocolInternals.h"
#include "common/PlatformShims.h"

namespace {

// The object whose message pump this thread is inside of.
thread_local const ProtocolBase* t_pPumping = nullptr;

}  // namespace

// Requests and the other frames that are sent.
//
// A request is ended exactly once, by its own caller, in StopWaiting under m_SendMutex. The network
// thread only clears m_nAnsCode; a caller that gives up has to take m_SendMutex, so it also waits
// for a reader that is still writing its result, and nothing writes there once the caller has
// returned.

/// Ends a request whose caller leaves without having done so.
class SR_HIDDEN ProtocolBase::Unlisting {
public:
    Unlisting(ProtocolBase& protocol, WaitingRequest& request)
        : m_Protocol(protocol), m_Request(request) {}
    ~Unlisting() {
        if (m_Request.state != WaitingRequest::State::Listed)
            return;
        m_Request.abandoned = true;
        boost::lock_guard<decltype(m_SendMutex)> lock(m_Protocol.m_SendMutex);
        m_Protocol.StopWaiting(m_Request);
    }

private:
    ProtocolBase& m_Protocol;
    WaitingRequest& m_Request;
};

int ProtocolBase::RequestCommand(int reqCode,
                                 int ansCode,
                                 const char* name,
                                 const std::string& payload,
                                 bool peek,
                                 int timeoutSec) {
    SR_LOG(kLogInfo,
           "==> RequestCommand Req:0x%02X Ans:0x%02X %s size:%d peek:%d timeout:%d pend:%d sock:%d "
           "this:%p",
           static_cast<unsigned>(reqCode), static_cast<unsigned>(ansCode), name,
           static_cast<int>(payload.size()), peek, timeoutSec, m_bFuncPending.load(),
           m_Socket.get(), static_cast<void*>(this));
    WaitingRequest request;
    // Also when the thread is cancelled in its wait: the list must not keep a frame that is gone.
    const Unlisting unlisting(*this, request);
    {
        const SendLock lock = LockForSending();
        if (IsReentered([](ProtocolBase& self) { return self.m_bFuncPending.load(); }))
            return SetErrorAt(kErrReentry, "ProtocolBase::RequestCommand", "",
                              recorded::kEngineFile, recorded::kRequestReentered);
        // A callback must not send into the connection that has replaced its own.
        if (m_bEnded || IsOfEarlierConnection())
            return RecordCancelled(GetErrorCode());
        const char code = static_cast<char>(reqCode);
        BuildFrame({&code, 1}, payload);
        StartWaiting(request, static_cast<unsigned char>(ansCode));
        if (SendBuffer(0) == -1) {
            const int nCode = -errno;
            StopWaiting(request);
            return SetErrorAt(nCode, "", "", recorded::kEngineFile, recorded::kRequestNotSent);
        }
    }

    int errorBefore = 0;
    const WaitEnd end = WaitForAnswer(request, peek, timeoutSec, errorBefore);
    bool answered;
    {
        SendLock lock(m_SendMutex, boost::defer_lock);
        if (end == WaitEnd::TimedOut)
            LetReaderFinish(request, lock);
        request.abandoned = true;
        if (!lock.owns_lock())
            lock.lock();
        answered = StopWaiting(request);
    }
    // An answer that came while giving up still counts: it has been read.
    if (answered)
        return SetErrorAt(0, "", "", recorded::kEngineFile, recorded::kRequestAnswered);
    if (end == WaitEnd::Cancelled)
        return RecordCancelled(errorBefore);
    if (timeoutSec != 0)
        return SetErrorAt(kErrNoAnswer, name, std::to_string(timeoutSec).c_str(),
                          recorded::kEngineFile, recorded::kRequestTimedOut);
    SR_LOG(kLogNotice, "%s command will not wait for response due to timeout is set to 0 second.",
           name);
    return SetErrorAt(0, "", "", recorded::kEngineFile, recorded::kRequestNoWait);
}

// What ended the connection is the better reason, and stands recorded.
int ProtocolBase::RecordCancelled(int errorBefore) {
    if (errorBefore < 0)
        return KeepFailure(errorBefore);
    return SetErrorAt(kErrNoAnswer, "Cancel", "?", recorded::kEngineFile,
                      recorded::kRequestCancelled);
}

int ProtocolBase::AckCommand(int ackCode, const char* name, const std::string& data) {
    const SendLock lock = LockForSending();
    SR_LOG(kLogInfo, "==> AckCommand Ack:0x%02X %s size:%d sock:%d this:%p",
           static_cast<unsigned>(ackCode), name, static_cast<int>(data.size()), m_Socket.get(),
           static_cast<void*>(this));
    const char code = static_cast<char>(ackCode);
    if (IsOfEarlierConnection())
        return 0;
    BuildFrame({&code, 1}, data);
    return SendBuffer(0);
}

int ProtocolBase::SendCommandData(const char* data, int len, int flags, bool log) {
    const SendLock lock = LockForSending();
    if (log)
        SR_LOG(kLogInfo, "==> SendCommandData len:%d sock:%d this:%p", len, m_Socket.get(),
               static_cast<void*>(this));
    if (IsOfEarlierConnection())
        return 0;
    BuildFrame({}, {data, static_cast<size_t>(std::max(len, 0))});
    return SendBuffer(flags);
}

// Steps aside once for a thread that opens or closes: a caller that sends in a loop would take the
// lock again before a waiting thread wakes up.
ProtocolBase::SendLock ProtocolBase::LockForSending() {
    if (m_nClosers != 0)
        internals::SleepSlice();
    return SendLock(m_SendMutex);
}

// The prefix stands in the buffer already. m_SendMutex held.
void ProtocolBase::BuildFrame(std::string_view code, std::string_view data) {
    m_strSendBuf.resize(m_strCmdPrefix.size());
    m_strSendBuf += code;
    m_strSendBuf += data;
}

// m_SendMutex held.
int ProtocolBase::SendBuffer(int flags) {
    return m_Socket.send(m_strSendBuf.data(), static_cast<int>(m_strSendBuf.size()), flags);
}

// m_SendMutex held.
void ProtocolBase::StartWaiting(WaitingRequest& request, unsigned char ansCode) {
    const bool joins = m_nAnsCode != 0 && m_nAnsCode == ansCode;
    if (!joins)
        SettleWaiting();
    request.connection = m_nConnection;
    m_vecWaiting.push_back(&request);
    request.state = WaitingRequest::State::Listed;
    m_nAnsCode = ansCode;
}

// Whether the request was answered. m_SendMutex held.
bool ProtocolBase::StopWaiting(WaitingRequest& request) {
    if (request.state != WaitingRequest::State::Listed)
        return request.state == WaitingRequest::State::Answered;
    const bool answered = m_nAnsCode == 0;
    request.state = answered ? WaitingRequest::State::Answered : WaitingRequest::State::Overtaken;
    m_vecWaiting.erase(std::find(m_vecWaiting.begin(), m_vecWaiting.end(), &request));
    if (m_vecWaiting.empty())
        m_nAnsCode = 0;
    return answered;
}

// Before m_nAnsCode stands for something else. m_SendMutex held.
void ProtocolBase::SettleWaiting() {
    for (WaitingRequest* waiting : m_vecWaiting)
        waiting->state =
            m_nAnsCode == 0 ? WaitingRequest::State::Answered : WaitingRequest::State::Overtaken;
    m_vecWaiting.clear();
}

bool ProtocolBase::IsAnswered(WaitingRequest& request) {
    // The lock only when it is worth it: a reader may hold it for long.
    const WaitingRequest::State state = request.state;
    if (state == WaitingRequest::State::Overtaken ||
        (state == WaitingRequest::State::Listed && m_nAnsCode != 0))
        return false;
    boost::lock_guard<decltype(m_SendMutex)> lock(m_SendMutex);
    return request.state == WaitingRequest::State::Listed
               ? m_nAnsCode == 0
               : request.state == WaitingRequest::State::Answered;
}

bool ProtocolBase::IsAnswerAbandoned() const {
    return !m_vecWaiting.empty() &&
           std::all_of(m_vecWaiting.begin(), m_vecWaiting.end(),
                       [](const WaitingRequest* waiting) { return waiting->abandoned.load(); });
}

bool ProtocolBase::IsCancelled(const WaitingRequest& request) const {
    return !m_bRunning || m_nConnection != request.connection;
}

ProtocolBase::WaitEnd ProtocolBase::WaitForAnswer(WaitingRequest& request,
                                                  bool peek,
                                                  int timeoutSec,
                                                  int& errorBefore) {
    const unsigned int start = GetTickCount();
    const long long limit = 1000LL * timeoutSec;
    while (GetTickCount() - start < limit) {
        if (IsCancelled(request)) {
            errorBefore = GetErrorCode();
            return WaitEnd::Cancelled;
        }
        PumpMessages(peek);
        if (IsAnswered(request))
            return WaitEnd::Answered;
        timed_wait(m_AnsCond, m_AnsWaitMutex, internals::kSliceMs);
    }
    return WaitEnd::TimedOut;
}

// An answer that has begun to arrive when the time is up gets one more read time-out to be whole.
// Takes m_SendMutex once the reader has let go of it.
void ProtocolBase::LetReaderFinish(const WaitingRequest& request, SendLock& lock) {
    const unsigned int start = GetTickCount();
    while (!lock.try_lock()) {
        if (IsCancelled(request) || GetTickCount() - start >= internals::kReadTimeoutMs)
            return;
        internals::SleepSlice();
    }
}

void ProtocolBase::PumpMessages(bool all) {
    const ProtocolBase* outer = t_pPumping;
    t_pPumping = this;
    ++m_nPumping;
    m_bFuncPending = true;
    if (all)
        PeekAllMessage(0);
    else
        PeekSomeMessage(0);
    m_bFuncPending = false;
    --m_nPumping;
    t_pPumping = outer;
}

// A call from inside this thread's own pump is a re-entry. Another thread's pump raises the flag too,
// for a moment; that must not refuse a call. The two are read one after the other while both move, so
// a single look could be wrong.
bool ProtocolBase::IsReentered(bool (*pending)(ProtocolBase&)) {
    if (t_pPumping == this)
        return true;
    for (int look = 0; look < 3; ++look) {
        if (!pending(*this) || m_nPumping != 0)
            return false;
    }
    return true;
}
