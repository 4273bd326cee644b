#ifndef SIMULATOR_ACTION_H_
#define SIMULATOR_ACTION_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "simulator/ReceiverSimulator.h"

// What lines of text and the entries of a timeline have in common. Built on the public class alone:
// whatever a scenario or a script can do, a program can do too.
namespace simulator {

struct Action {
    std::string text;                                        // as a line for Execute()
    std::function<std::string(ReceiverSimulator&)> perform;  // gives the answer line
};

struct TimedAction {
    std::chrono::milliseconds at;
    Action action;
};

/// Senders that come and go: SampleSender(key) to SampleSender(key + count - 1).
struct Crowd {
    int32_t key = 0;
    int32_t count = 0;
    int32_t present = 0;  // there at the start, from the first on
    std::chrono::milliseconds every{0};
};

struct Scenario::Data {
    std::string description;
    bool startsWithClient = false;
    std::vector<Sender> senders;
    Moderator moderator;
    std::vector<std::pair<int32_t, uint8_t>> shown;  // key, option
    std::optional<Crowd> crowd;
    std::vector<TimedAction> timeline;  // ascending; of the same time in the order of the file
};

/// Nothing for a line that is no command; `error` then says what was wrong.
std::optional<Action> ParseCommand(const std::string& line, std::string& error);

}  // namespace simulator

#endif  // SIMULATOR_ACTION_H_
