#ifndef TESKCLIENT_PROTOCOLINTERNALS_H_
#define TESKCLIENT_PROTOCOLINTERNALS_H_

// Shared by the source files of ProtocolBase; not for derived classes.

#include <unistd.h>

#include <boost/function.hpp>
#include <boost/thread/thread.hpp>

#include "TeskClient/ErrorTable.h"
#include "TeskClient/ProtocolBase.h"
#include "TeskClient/RecordedLines.h"

// Both for member functions of ProtocolBase: its log line, and an error raised where they stand.
#define SR_LOG(level, ...)         GetLogger()->Write(__FILE__, __LINE__, level, __VA_ARGS__)
#define SR_RAISE(code, arg1, arg2) SetErrorAt(code, arg1, arg2, recorded::kEngineFile, __LINE__)

namespace internals {

constexpr int kSliceMs = 30;
constexpr int kReadTimeoutMs = 5000;

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

/// Null when no thread can be had; nothing throws.
boost::thread* StartThread(const boost::function<void()>& body);

}  // namespace internals

/**
 * A request that waits, on its caller's stack. It is listed in m_vecWaiting as long as m_nAnsCode
 * stands for it. When another request or another connection takes its place it is settled: answered
 * if its code had been cleared by then, else overtaken, which nobody answers any more.
 */
struct SR_HIDDEN ProtocolBase::WaitingRequest {
    enum class State { Listed, Answered, Overtaken };

    std::atomic<State> state{State::Listed};  // written under m_SendMutex
    std::atomic<bool> abandoned{false};       // its caller has stopped waiting
    unsigned connection = 0;                  // the one that it was sent on
};

#endif  // TESKCLIENT_PROTOCOLINTERNALS_H_
