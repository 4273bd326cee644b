#include "TeskClient/ProtocolInternals.h"

// The dispatcher thread. Handlers run here without any lock, one at a time, in the order of the
// queue; they may send requests, for only the network thread reads answers.

void ProtocolBase::DispatcherThread() {
    SR_LOG(kLogDebug, "DispatcherThread begin sock:%d this:%p", m_Socket.get(),
           static_cast<void*>(this));
    unsigned char cmd = 0;
    std::string payload;
    while (m_bRunning) {
        if (!TakeQueuedEvent(cmd, payload)) {
            timed_wait(m_EventCond, m_EventWaitMutex, internals::kSliceMs);
            continue;
        }
        if (!m_bRunning)
            break;
        const CmdHandler handler = m_CmdHandlers[cmd];
        HandleRetVal(cmd, (this->*handler)(&payload[0]));
    }
    {
        boost::lock_guard<decltype(m_EventMutex)> lock(m_EventMutex);
        m_EventQueue.clear();
    }
    SR_LOG(kLogDebug, "DispatcherThread end sock:%d this:%p", m_Socket.get(),
           static_cast<void*>(this));
}

// False when the queue is empty.
bool ProtocolBase::TakeQueuedEvent(unsigned char& cmd, std::string& payload) {
    boost::lock_guard<decltype(m_EventMutex)> lock(m_EventMutex);
    if (m_EventQueue.empty())
        return false;
    cmd = m_EventQueue.front().first;
    payload = std::move(m_EventQueue.front().second);
    m_EventQueue.pop_front();
    return true;
}
