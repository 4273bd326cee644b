#ifndef SIMULATOR_ANSWERS_H_
#define SIMULATOR_ANSWERS_H_

#include <array>
#include <cstdint>

#include "simulator/Delivery.h"
#include "simulator/ReceiverSimulator.h"
#include "simulator/ReceiverState.h"
#include "simulator/Wire.h"

namespace simulator {

/**
 * Carries requests out on the state and makes the frames that answer them. Pure, as the state; the
 * owner serialises the calls.
 */
class Answers {
public:
    Answers(ReceiverState& state, const Options& options) : m_State(state), m_Options(options) {}

    Bytes Answer(const Request& request, uint64_t client, ReceiverState::Notes& notes);

    /// What a request without arguments would get that changes nothing; `round` counts from 0 and
    /// takes its turn among the ten requests when `command` is none.
    Bytes Unasked(int command, uint64_t round);

    /// After the state was replaced.
    void ForgetLists() { m_Lists = {}; }

private:
    // A list as it was sent last: as long as nobody changes the senders, nobody encodes it again.
    struct ListFrame {
        uint64_t version = 0;
        Bytes bytes;
    };

    Bytes List(uint8_t request);
    Result Steer(const Request& request, uint64_t client, ReceiverState::Notes& notes);

    ReceiverState& m_State;
    const Options& m_Options;
    std::array<ListFrame, 3> m_Lists;  // by ReceiverState::Selection
};

}  // namespace simulator

#endif  // SIMULATOR_ANSWERS_H_
