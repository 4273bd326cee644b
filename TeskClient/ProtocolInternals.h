#ifndef TESKCLIENT_PROTOCOLINTERNALS_H_
#define TESKCLIENT_PROTOCOLINTERNALS_H_

// Shared by the source files of ProtocolBase; not for derived classes.

#include <signal.h>
#include <unistd.h>

#include <boost/thread/thread.hpp>

#include "TeskClient/ErrorTable.h"
#include "TeskClient/ProtocolBase.h"
#include "TeskClient/RecordedLines.h"

// Both for member functions of ProtocolBase: its log line, and an error raised where they stand.
#define SR_LOG(level, ...)         GetLogger()->Write(__FILE__, __LINE__, level, __VA_ARGS__)
#define SR_RAISE(code, arg1, arg2) SetErrorAt(code, arg1, arg2, recorded::kEngineFile, __LINE__)

namespace internals {

constexpr int kSliceMs = 30;
constexpr unsigned int kReadTimeoutMs = 5000;

inline void SleepSlice() {
    usleep(kSliceMs * 1000);
}

/// What the calling thread is to the object that started it.
enum class Role { Stranger, Network, Dispatcher, Close };

struct ThreadRole {
    const ProtocolBase* object;
    Role role;
    unsigned connection;  // the one that it was started for
};

/// The application's threads are strangers to every object.
ThreadRole& OwnRole();

/// Role of the calling thread towards `object`.
inline Role RoleTowards(const ProtocolBase* object) {
    return OwnRole().object == object ? OwnRole().role : Role::Stranger;
}

/**
 * Keeps the application's signals away from threads that are started meanwhile, from their first
 * instruction on: to the network thread an interrupted select() is a lost link, and a handler that
 * calls exit() must not meet a lock that its own thread holds. Signals that report a fault of a
 * thread stay its own.
 */
class SignalsBlocked {
public:
    SignalsBlocked();
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_Before, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t m_Before;
};

/// Null when no thread can be had; nothing throws.
template <class Body>
boost::thread* StartThread(const Body& body) {
    try {
        return new boost::thread(body);
    } catch (...) {
        return nullptr;
    }
}

}  // namespace internals

/**
 * A request that waits, on its caller's stack. It is listed in m_vecWaiting as long as m_nAnsCode
 * stands for it. When another request or another connection takes its place it is settled: answered
 * if its code had been cleared by then, else overtaken, which nobody answers any more.
 */
struct SR_HIDDEN ProtocolBase::WaitingRequest {
    enum class State { Unlisted, Listed, Answered, Overtaken };

    std::atomic<State> state{State::Unlisted};  // written under m_SendMutex
    std::atomic<bool> abandoned{false};         // its caller wants nothing but to leave
    unsigned connection = 0;                    // the one that it was sent on
};

#endif  // TESKCLIENT_PROTOCOLINTERNALS_H_
