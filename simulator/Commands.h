#ifndef SIMULATOR_COMMANDS_H_
#define SIMULATOR_COMMANDS_H_

#include <optional>
#include <string>
#include <vector>

#include "simulator/Action.h"
#include "simulator/Fields.h"

namespace simulator {

/// Those that a timeline may have.
std::vector<std::string> TimelineCommands();

/// `further` are fields that the values have besides the command's, all of them required.
std::optional<Mistake> CheckCommand(const std::string& command,
                                    const Json& values,
                                    const Fields& further);

/// The values have passed CheckCommand().
Action MakeAction(const std::string& command, const Json& values);

}  // namespace simulator

#endif  // SIMULATOR_COMMANDS_H_
