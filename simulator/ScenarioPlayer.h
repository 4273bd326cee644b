#ifndef SIMULATOR_SCENARIOPLAYER_H_
#define SIMULATOR_SCENARIOPLAYER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>

#include "simulator/Action.h"
#include "simulator/Agenda.h"
#include "simulator/FaultTable.h"
#include "simulator/ReceiverSimulator.h"
#include "simulator/ReceiverState.h"

namespace simulator {

/**
 * Plays a scenario, once.
 *
 * Threads: the I/O thread only. The agenda must be cleared before this is destroyed.
 */
class ScenarioPlayer {
public:
    /// `flush` has the notifications sent of what was done, while the agenda is still at its time.
    ScenarioPlayer(Agenda& agenda,
                   ReceiverSimulator& receiver,
                   const Observer& observer,
                   Scenario scenario,
                   uint64_t seed,
                   std::function<void()> flush);

    ReceiverState FirstState() const;

    void OnStart();
    void OnClient();

private:
    void Begin();
    void AwaitNext();
    void DoNext();
    void MoveCrowd();

    Agenda& m_Agenda;
    ReceiverSimulator& m_Receiver;
    const Observer& m_Observer;
    const Scenario m_Scenario;
    const Scenario::Data& m_Data;
    Random m_Random;
    const std::function<void()> m_Flush;
    bool m_bBegun = false;
    Agenda::Clock::time_point m_Begin;
    size_t m_nNextAction = 0;
    std::chrono::milliseconds m_NextMove{0};
};

}  // namespace simulator

#endif  // SIMULATOR_SCENARIOPLAYER_H_
