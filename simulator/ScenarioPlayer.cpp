#include "simulator/ScenarioPlayer.h"

#include <string>
#include <utility>

namespace simulator {

ScenarioPlayer::ScenarioPlayer(Agenda& agenda,
                               ReceiverSimulator& receiver,
                               const Observer& observer,
                               Scenario scenario,
                               uint64_t seed,
                               std::function<void()> flush)
    : m_Agenda(agenda),
      m_Receiver(receiver),
      m_Observer(observer),
      m_Scenario(std::move(scenario)),
      m_Data(m_Scenario.GetData()),
      m_Random(seed),
      m_Flush(std::move(flush)) {
    if (m_Data.crowd)
        m_NextMove = m_Data.crowd->every;
}

ReceiverState ScenarioPlayer::FirstState() const {
    ReceiverState state;
    ReceiverState::Notes nobodyIsThere;
    for (const Sender& sender : m_Data.senders)
        state.Add(sender, nobodyIsThere);
    if (m_Data.crowd) {
        for (int32_t i = 0; i < m_Data.crowd->present; ++i)
            state.Add(SampleSender(m_Data.crowd->key + i), nobodyIsThere);
    }
    for (const auto& [key, option] : m_Data.shown)
        state.StartPlay(key, option, nobodyIsThere);
    state.SetModerator(m_Data.moderator, nobodyIsThere);
    return state;
}

void ScenarioPlayer::OnStart() {
    if (!m_Data.startsWithClient)
        Begin();
}

void ScenarioPlayer::OnClient() {
    if (m_Data.startsWithClient)
        Begin();
}

void ScenarioPlayer::Begin() {
    if (std::exchange(m_bBegun, true))
        return;
    m_Begin = m_Agenda.Now();
    AwaitNext();
}

void ScenarioPlayer::AwaitNext() {
    const bool acts = m_nNextAction < m_Data.timeline.size();
    const bool moves = m_Data.crowd && (!acts || m_NextMove < m_Data.timeline[m_nNextAction].at);
    if (moves) {
        m_Agenda.At(m_Begin + m_NextMove, [this] { MoveCrowd(); });
    } else if (acts) {
        m_Agenda.At(m_Begin + m_Data.timeline[m_nNextAction].at, [this] { DoNext(); });
    }
}

void ScenarioPlayer::DoNext() {
    const Action& action = m_Data.timeline[m_nNextAction++].action;
    AwaitNext();
    const std::string answer = action.perform(m_Receiver);
    m_Flush();
    if (m_Observer.timeline)
        m_Observer.timeline(action.text, answer);
}

/// Somebody comes who was not there; somebody who was leaves or changes.
void ScenarioPlayer::MoveCrowd() {
    const Crowd& crowd = *m_Data.crowd;
    m_NextMove += crowd.every;
    AwaitNext();
    const auto index = static_cast<int32_t>(m_Random() % static_cast<uint64_t>(crowd.count));
    const Sender sender = SampleSender(crowd.key + index);
    const bool leaves = m_Random() % 2 == 0;
    const uint16_t status = m_Random() % 2 == 0 ? kStatusIdle : kStatusReady;
    if (!m_Receiver.AddSender(sender)) {
        if (leaves)
            m_Receiver.RemoveSender(sender.key);
        else
            m_Receiver.ChangeSender(sender.key, [&](Sender& found) { found.status = status; });
    }
    m_Flush();
}

}  // namespace simulator
