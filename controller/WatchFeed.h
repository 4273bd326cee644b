#ifndef CONTROLLER_WATCHFEED_H_
#define CONTROLLER_WATCHFEED_H_

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "controller/Receiver.h"
#include "controller/WatchModel.h"

namespace screenctl {

struct Order {
    enum class Act { Refresh, Play, Stop, Logout };
    Act act = Act::Refresh;
    int sender = 0;
};

// What the feed tells.
struct Notified {
    WallTime time;
    std::array<int, 3> values;
};
/// So many notifications in a row were not kept, since too many waited already.
struct Lost {
    WallTime time;  // of the first
    uint64_t count;
};
struct Listed {
    WallTime time;
    std::vector<ScreenSenderInfo> senders;
};
struct Linked {
    WallTime time;
    LinkState link;
};
/// An order but Refresh was done, or not.
struct Acted {
    WallTime time;
    Order order;
    std::optional<Failure> failure;
};
/// It cannot ever connect; nothing comes after this.
struct Unusable {
    Failure failure;
};
using WatchEvent = std::variant<Notified, Lost, Listed, Linked, Acted, Unusable>;

/**
 * Keeps a connection to a receiver and tells what happens there. Asks for the list after every
 * notification and every order, and at an interval. When the link breaks, it connects again, with
 * growing pauses. When what it tells is not taken, it stands still and keeps only so many
 * notifications.
 *
 * Lives until the process ends: a request may take many seconds to fail, and nobody who quits
 * wants to wait for it.
 *
 * Threads: one of its own makes all the requests, so that its user never waits. Methods: any.
 */
class WatchFeed {
public:
    static WatchFeed& Start(const std::string& host,
                            const Trace& trace,
                            std::chrono::milliseconds every);
    WatchFeed(const WatchFeed&) = delete;
    WatchFeed& operator=(const WatchFeed&) = delete;

    /// Readable while Take() has something to give.
    int Descriptor() const { return m_nReady; }
    std::vector<WatchEvent> Take();

    /// Without a connection, Refresh tries at once to have one, and the others fail.
    void Give(const Order& order);

    /// True when the receiver has let a request wait for longer than answers usually take.
    bool IsWaiting() const;

private:
    using Clock = std::chrono::steady_clock;
    using Result = Receiver::Result;

    WatchFeed(const std::string& host, const Trace& trace, std::chrono::milliseconds every);
    ~WatchFeed() = default;

    void Hear(const int* values);
    void Keep(const Notified& notified);
    void Tell(WatchEvent event);

    // Thread of its own.
    void Work();
    Failure Serve();
    Order NextOrder();
    Result Do(const Order& order);
    Result Act(const Order& order);
    Result List();
    void Rest(Clock::time_point end, const Failure& failure);
    void AwaitTaker();
    void SetWaiting(bool waiting);

    const std::chrono::milliseconds m_Every;
    const int m_nReady;
    Receiver m_Receiver;  // this and the next are used by the thread only
    RetryPause m_Pause;

    mutable std::mutex m_Mutex;  // guards all below
    std::condition_variable m_Wake;
    std::vector<WatchEvent> m_Events;
    bool m_bTaken = true;  // what the thread has told; notifications do not count
    std::deque<Order> m_Orders;
    bool m_bStirred = false;  // something has happened since the last list was asked for
    std::optional<Clock::time_point> m_WaitingSince;
};

}  // namespace screenctl

#endif  // CONTROLLER_WATCHFEED_H_
