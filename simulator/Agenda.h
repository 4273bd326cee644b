#ifndef SIMULATOR_AGENDA_H_
#define SIMULATOR_AGENDA_H_

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <utility>

namespace simulator {

/**
 * What is to be done later, in the order of the due times, also when the thread is late: so the
 * same plan has the same course on a busy machine. What a task posts runs before the next task.
 *
 * Threads: the I/O thread only; Clear() also while there is none.
 */
class Agenda {
public:
    using Clock = std::chrono::steady_clock;
    using Task = std::function<void()>;
    using Ticket = std::pair<Clock::time_point, uint64_t>;

    explicit Agenda(boost::asio::io_context& io) : m_Io(io), m_Timer(io) {}

    Ticket At(Clock::time_point due, Task task);
    /// Harmless when the task has run.
    void Cancel(const Ticket& ticket);
    void Clear();
    /// After an exception that a task has thrown: the others go on.
    void Recover();

    /// Inside a task its due time, so that delays do not add up.
    Clock::time_point Now() const { return m_RunningDue ? *m_RunningDue : Clock::now(); }

private:
    void Arm();
    void RunFirst();

    boost::asio::io_context& m_Io;
    boost::asio::steady_timer m_Timer;
    std::map<Ticket, Task> m_Tasks;
    uint64_t m_nNextTicket = 0;
    std::optional<Clock::time_point> m_RunningDue;
};

}  // namespace simulator

#endif  // SIMULATOR_AGENDA_H_
