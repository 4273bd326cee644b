#include "controller/WatchFeed.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <thread>
#include <utility>

namespace screenctl {

using std::chrono::milliseconds;

namespace {

constexpr milliseconds kUsualAnswer(300);
// Between two lists, so that many notifications do not become as many requests.
constexpr milliseconds kListGap(50);
// A reader of a pipe may stand still for ever.
constexpr size_t kMaxWaiting = 100000;

WallTime Now() {
    return std::chrono::system_clock::now();
}

int OpenEvent() {
    const int descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (descriptor == -1)
        throw std::system_error(errno, std::generic_category(), "eventfd");
    return descriptor;
}

}  // namespace

WatchFeed& WatchFeed::Start(const std::string& host, const Trace& trace, milliseconds every) {
    static WatchFeed* const feed = new WatchFeed(host, trace, every);
    // Signals are for the thread that has the terminal. The new one, and those of the library that
    // it starts, inherit what is blocked here.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread([] { feed->Work(); }).detach();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return *feed;
}

WatchFeed::WatchFeed(const std::string& host, const Trace& trace, milliseconds every)
    : m_Every(every), m_nReady(OpenEvent()), m_Receiver(host, trace) {
    m_Receiver.Listen([this](const int* values) { Hear(values); });
}

std::vector<WatchEvent> WatchFeed::Take() {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    eventfd_t count = 0;
    eventfd_read(m_nReady, &count);
    m_bTaken = true;
    m_Wake.notify_one();
    return std::exchange(m_Events, {});
}

void WatchFeed::Give(const Order& order) {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    m_Orders.push_back(order);
    m_Wake.notify_one();
}

bool WatchFeed::IsWaiting() const {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    return m_WaitingSince && Clock::now() - *m_WaitingSince > kUsualAnswer;
}

void WatchFeed::Hear(const int* values) {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    if (values != nullptr)
        Keep({Now(), {values[0], values[1], values[2]}});
    m_bStirred = true;
    m_Wake.notify_one();
}

void WatchFeed::Keep(const Notified& notified) {
    if (m_Events.size() < kMaxWaiting)
        m_Events.push_back(notified);
    else if (Lost* lost = std::get_if<Lost>(&m_Events.back()))
        ++lost->count;
    else
        m_Events.push_back(Lost{notified.time, 1});
    eventfd_write(m_nReady, 1);
}

void WatchFeed::Tell(WatchEvent event) {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    m_Events.push_back(std::move(event));
    m_bTaken = false;
    eventfd_write(m_nReady, 1);
}

void WatchFeed::Work() {
    for (;;) {
        Result failure = m_Receiver.Connect();
        if (!failure)
            failure = Serve();
        if (failure->exit == Exit::WrongUsage)
            return Tell(Unusable{*failure});
        const milliseconds pause = m_Pause.Next();
        const auto next = Clock::now() + pause;
        Tell(Linked{Now(), {false, failure->code, failure->message, pause, next}});
        // Whoever gives orders must know before the next try that the link was lost.
        AwaitTaker();
        Rest(next, *failure);
    }
}

/// Until the link breaks. The pauses only get short again once the receiver has answered, since one
/// that accepts and closes at once should not be tried twice a second.
Failure WatchFeed::Serve() {
    LinkState link;
    link.connected = true;
    Tell(Linked{Now(), link});
    Order order;
    for (;;) {
        const Result failure = Do(order);
        if (failure)
            return *failure;
        m_Pause.Reset();
        order = NextOrder();
    }
}

/// Refresh when none has been given and it is time.
Order WatchFeed::NextOrder() {
    const auto answered = Clock::now();
    AwaitTaker();
    std::unique_lock<std::mutex> lock(m_Mutex);
    m_Wake.wait_until(lock, answered + kListGap, [this] { return !m_Orders.empty(); });
    m_Wake.wait_until(lock, answered + m_Every, [this] { return m_bStirred || !m_Orders.empty(); });
    if (m_Orders.empty())
        return {};
    const Order order = m_Orders.front();
    m_Orders.pop_front();
    return order;
}

/// Gives why the link has broken.
WatchFeed::Result WatchFeed::Do(const Order& order) {
    Result failure;
    SetWaiting(true);
    if (order.act != Order::Act::Refresh) {
        failure = Act(order);
        Tell(Acted{Now(), order, failure});
    }
    if (!failure || failure->exit == Exit::Refused)
        failure = List();
    SetWaiting(false);
    return failure;
}

WatchFeed::Result WatchFeed::Act(const Order& order) {
    switch (order.act) {
        case Order::Act::Play:
            return m_Receiver.Play(order.sender, 0);
        case Order::Act::Stop:
            return m_Receiver.Stop(order.sender);
        case Order::Act::Logout:
            return m_Receiver.Logout(order.sender);
        case Order::Act::Refresh:
            break;
    }
    return std::nullopt;
}

WatchFeed::Result WatchFeed::List() {
    {
        // What happens from now on may be missing in the list.
        const std::lock_guard<std::mutex> lock(m_Mutex);
        m_bStirred = false;
    }
    std::vector<ScreenSenderInfo> senders;
    Result failure = m_Receiver.List(Which::All, senders);
    if (!failure)
        Tell(Listed{Now(), std::move(senders)});
    return failure;
}

/// Until the next try. An order that was given to a lost receiver must not be done to the next one.
void WatchFeed::Rest(Clock::time_point end, const Failure& failure) {
    std::unique_lock<std::mutex> lock(m_Mutex);
    while (m_Wake.wait_until(lock, end, [this] { return !m_Orders.empty(); })) {
        const Order order = m_Orders.front();
        m_Orders.pop_front();
        if (order.act == Order::Act::Refresh)
            return;
        lock.unlock();
        Tell(Acted{Now(), order, failure});
        lock.lock();
    }
}

void WatchFeed::AwaitTaker() {
    std::unique_lock<std::mutex> lock(m_Mutex);
    m_Wake.wait(lock, [this] { return m_bTaken; });
}

void WatchFeed::SetWaiting(bool waiting) {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    m_WaitingSince = waiting ? std::optional<Clock::time_point>(Clock::now()) : std::nullopt;
}

}  // namespace screenctl
