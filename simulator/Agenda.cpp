#include "simulator/Agenda.h"

#include <boost/asio/post.hpp>
#include <boost/system/error_code.hpp>

namespace simulator {

Agenda::Ticket Agenda::At(Clock::time_point due, Task task) {
    const Ticket ticket(due, m_nNextTicket++);
    m_Tasks.emplace(ticket, std::move(task));
    // A running task arms the timer when it is done.
    if (!m_RunningDue && m_Tasks.begin()->first == ticket)
        Arm();
    return ticket;
}

void Agenda::Cancel(const Ticket& ticket) {
    m_Tasks.erase(ticket);
}

void Agenda::Clear() {
    m_Tasks.clear();
    m_Timer.cancel();
}

void Agenda::Arm() {
    if (m_Tasks.empty())
        return;
    m_Timer.expires_at(m_Tasks.begin()->first.first);
    m_Timer.async_wait([this](const boost::system::error_code& error) {
        if (!error)
            RunFirst();
    });
}

void Agenda::RunFirst() {
    const auto first = m_Tasks.begin();
    if (first == m_Tasks.end() || first->first.first > Clock::now()) {
        Arm();
        return;
    }
    m_RunningDue = first->first.first;
    const Task task = std::move(first->second);
    m_Tasks.erase(first);
    task();
    m_RunningDue.reset();
    boost::asio::post(m_Io, [this] { Arm(); });
}

void Agenda::Recover() {
    m_RunningDue.reset();
    Arm();
}

}  // namespace simulator
