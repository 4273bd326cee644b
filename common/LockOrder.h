#ifndef COMMON_LOCKORDER_H_
#define COMMON_LOCKORDER_H_

#include <boost/thread/locks.hpp>
#include <boost/thread/recursive_mutex.hpp>

#ifdef SR_CHECK_LOCK_ORDER
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#endif

inline namespace screen_receiver {

/**
 * The one table of the lock order. A thread takes ranks upwards only; a mutex that it already holds
 * it may take again, whatever else it holds.
 *
 * | rank | mutex                              | guards                       | while held                |
 * |------|------------------------------------|------------------------------|---------------------------|
 * | 5    | ScreenReceiverStub::m_RequestMutex | the result pointer           | a whole request           |
 * | 10   | ProtocolBase::m_ConnMutex          | host, ports, threads         | connecting, joining       |
 * | 20   | ProtocolBase::m_RecvMutex          | prefix, one frame's reading  | payload reads             |
 * | 25   | ProtocolBase::m_EventMutex         | event queue                  | push and pop              |
 * | 30   | ProtocolBase::m_SendMutex          | send buffer, m_nAnsCode      | a send; the reply reader  |
 * | 40   | ProtocolBase::m_AnsWaitMutex       | waits on m_AnsCond           | the wait                  |
 * | 45   | ProtocolBase::m_EventWaitMutex     | waits on m_EventCond         | the wait                  |
 * | 50   | ThdSafeSocket send lock            | descriptor against close     | one send, 5 s at most     |
 * | 55   | ThdSafeSocket receive lock         | the same and the peek buffer | one receive               |
 * | 80   | NibErrorHandler::m_ErrMutex        | error record                 | one message, one log line |
 * | 90   | Logger::m_mutex                    | log stream                   | one line and its flush    |
 *
 * Three rules follow from it. The network thread never takes m_ConnMutex, for its holder may be
 * joining it. The dispatcher takes it only by polling (ProtocolBase::LockOwnConnection), for its
 * holder may be joining the dispatcher. Teardown never takes the request lock.
 *
 * No callback of the application ever runs under one of these locks.
 */
enum class LockRank : int {
    Request = 5,
    Connection = 10,
    Receive = 20,
    Events = 25,
    Send = 30,
    AnswerWait = 40,
    EventWait = 45,
    SocketSend = 50,
    SocketReceive = 55,
    ErrorState = 80,
    Log = 90,
};

namespace lock_order {

#ifdef SR_CHECK_LOCK_ORDER

struct Held {
    LockRank rank;
    const void* mutex;
};

// Trivial, so that it still stands when the destructors of static objects take locks.
struct HeldList {
    Held held[32];
    int count;
};
inline thread_local HeldList t_Held = {};

inline void Check(LockRank rank, const void* mutex) {
    for (int i = 0; i < t_Held.count; ++i) {
        if (t_Held.held[i].mutex == mutex)
            return;
    }
    for (int i = 0; i < t_Held.count; ++i) {
        if (t_Held.held[i].rank >= rank) {
            std::fprintf(stderr, "lock order broken: rank %d taken while rank %d is held\n",
                         static_cast<int>(rank), static_cast<int>(t_Held.held[i].rank));
            std::abort();
        }
    }
}

inline void OnAcquired(LockRank rank, const void* mutex) {
    if (t_Held.count == static_cast<int>(std::size(t_Held.held)))
        std::abort();  // never that many: something takes locks without end
    t_Held.held[t_Held.count++] = {rank, mutex};
}

inline void OnRelease(const void* mutex) {
    for (int i = t_Held.count - 1; i >= 0; --i) {
        if (t_Held.held[i].mutex == mutex) {
            std::copy(t_Held.held + i + 1, t_Held.held + t_Held.count, t_Held.held + i);
            --t_Held.count;
            return;
        }
    }
}

#else

inline void Check(LockRank, const void*) {}
inline void OnAcquired(LockRank, const void*) {}
inline void OnRelease(const void*) {}

#endif

}  // namespace lock_order

/**
 * Recursive mutex that knows its place in the table above. Builds with SR_CHECK_LOCK_ORDER end the
 * process at the first path that takes a lower rank under a higher one, so a wrong order is found
 * on its first run and needs no second thread to collide with. The layout is the same in all
 * builds.
 */
template <LockRank R>
class OrderedMutex : public boost::recursive_mutex {
public:
    using scoped_lock = boost::unique_lock<OrderedMutex>;

    void lock() {
        lock_order::Check(R, this);
        boost::recursive_mutex::lock();
        lock_order::OnAcquired(R, this);
    }

    // Cannot wait, so it cannot deadlock: no rank is checked.
    bool try_lock() {
        if (!boost::recursive_mutex::try_lock())
            return false;
        lock_order::OnAcquired(R, this);
        return true;
    }

    void unlock() {
        lock_order::OnRelease(this);
        boost::recursive_mutex::unlock();
    }
};

}  // namespace screen_receiver

#endif  // COMMON_LOCKORDER_H_
