#include <algorithm>

#include "simulator/SimulatorImpl.h"
#include "simulator/Wire.h"

namespace simulator {

namespace {

constexpr std::chrono::milliseconds kFloodBatch(10);
constexpr uint64_t kMostAtOnce = 1000;
constexpr std::chrono::milliseconds kMostLag(250);
constexpr std::chrono::milliseconds kShortestRepeat(1);
constexpr std::chrono::hours kLongestTimeout(24 * 365);

}  // namespace

/// What goes on by itself begins, and what Stop() has interrupted goes on.
void ReceiverSimulator::Impl::Resume() {
    std::vector<uint64_t> repeating;
    bool held = false;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        repeating.swap(m_ToRepeat);
        held = m_State.ConfControlClient() != 0;
    }
    for (const uint64_t fault : repeating)
        StartRepeating(fault, Clock::now());
    if (held)
        AwaitConfTimeout();
    if (m_Player)
        m_Player->OnStart();
}

/// What a handler has left undone when memory ran out in it.
void ReceiverSimulator::Impl::Recover() {
    m_Agenda.Recover();
    if (m_Acceptor.is_open() && !m_bAccepting)
        Accept();
    FlushPending();
}

void ReceiverSimulator::Impl::AwaitConfTimeout() {
    m_Agenda.Cancel(m_ConfTimeout);
    if (m_Options.confTimeout.count() <= 0)
        return;
    const auto timeout =
        std::min<std::chrono::milliseconds>(m_Options.confTimeout, kLongestTimeout);
    m_ConfTimeout = m_Agenda.At(Clock::now() + timeout, [this] {
        ChangeState([](ReceiverState& state, ReceiverState::Notes& notes) {
            state.ExpireConfControl(notes);
            return true;
        });
        FlushPending();
    });
}

// Otherwise what cannot be kept up with would go before everything else for ever.
ReceiverSimulator::Impl::Clock::time_point ReceiverSimulator::Impl::NotTooLate(
    Clock::time_point planned) const {
    return std::max(planned, Clock::now() - kMostLag);
}

void ReceiverSimulator::Impl::StartRepeating(uint64_t fault, Clock::time_point start) {
    FaultKind kind = FaultKind::Flood;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        uint64_t none = 0;
        const std::optional<Fault> found = m_Faults.Repeat(fault, none);
        if (!found || !m_bServing)
            return;
        kind = found->kind;
    }
    if (kind == FaultKind::Unasked)
        m_Agenda.At(start, [this, fault] { AnswerUnasked(fault, 0); });
    else if (kind == FaultKind::Flood)
        m_Agenda.At(start + kFloodBatch, [this, fault, start] { Flood(fault, start, 1, 0); });
}

// By batch n there have been n times 10 ms of notifications, however late the batch comes.
void ReceiverSimulator::Impl::Flood(uint64_t fault,
                                    Clock::time_point start,
                                    uint64_t batch,
                                    uint64_t sent) {
    uint64_t wanted = 0;
    bool whole = true;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        const std::optional<Fault> flood = m_Faults.Repeat(fault, wanted);
        if (!flood)
            return;
        wanted = flood->rate * batch * kFloodBatch.count() / 1000 - sent;
        whole = wanted <= kMostAtOnce;
        wanted = std::min(wanted, kMostAtOnce);
        m_Faults.Repeat(fault, wanted);
    }
    FlushPending();
    ReceiverState::Notes notes;
    for (uint64_t i = 0; i < wanted; ++i) {
        m_nFlooded = m_nFlooded == INT32_MAX ? 1 : m_nFlooded + 1;
        notes.push_back({kNotifyFlood, m_nFlooded, 0});
    }
    Broadcast(notes);
    const uint64_t next = whole ? batch + 1 : batch;
    const Clock::time_point planned = start + kFloodBatch * next;
    const Clock::time_point due = NotTooLate(planned);
    m_Agenda.At(due, [this, fault, start = start + (due - planned), next, all = sent + wanted] {
        Flood(fault, start, next, all);
    });
}

void ReceiverSimulator::Impl::AnswerUnasked(uint64_t fault, uint64_t round) {
    Bytes answer;
    std::chrono::milliseconds time(0);
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        uint64_t once = 1;
        const std::optional<Fault> unasked = m_Faults.Repeat(fault, once);
        if (!unasked)
            return;
        answer = m_Answers.Unasked(unasked->command, round);
        time = std::max(unasked->time, kShortestRepeat);
    }
    FlushPending();
    Broadcast(answer);
    m_Agenda.At(NotTooLate(m_Agenda.Now() + time),
                [this, fault, round] { AnswerUnasked(fault, round + 1); });
}

}  // namespace simulator
