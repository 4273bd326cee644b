#ifndef CONTROLLER_COMMAND_H_
#define CONTROLLER_COMMAND_H_

#include <CLI/App.hpp>
#include <CLI/Option.hpp>
#include <CLI/StringTools.hpp>
#include <CLI/Validators.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "controller/Receiver.h"

namespace screenctl {

/// What all commands have.
struct Common {
    std::string host = "127.0.0.1";
    double wait = 0;  // seconds to keep trying to connect
    bool json = false;
    Trace trace;
};

/// What the chosen command does; gives the exit code.
using Run = std::function<int()>;

/// For Option::transform: a decimal number, nothing else. CLI11 alone takes 010 for eight.
CLI::Validator Number(int64_t least, int64_t most);
/// For Option::check: seconds, up to a day. CLI11's range lets "nan" pass.
CLI::Validator Seconds(double least);
/// For Option::check: one of these names. CLI11's check tells what is wrong in its own terms.
inline CLI::Validator OneOf(const std::vector<std::string>& names) {
    const auto check = [names](const std::string& text) {
        return std::find(names.begin(), names.end(), text) != names.end()
                   ? ""
                   : "expected one of " + CLI::detail::join(names, ", ");
    };
    return CLI::Validator(check, "{" + CLI::detail::join(names, ",") + "}");
}
std::chrono::milliseconds Milliseconds(double seconds);

/// From now on Ctrl-C and SIGTERM end the program with Exit::Done: for a command that goes on until
/// then, and whose work has been done. A signal that was ignored at the start stays so.
void EndBySignalWithSuccess();

/// Connects, does it and reports what fails; gives the exit code. The listener may be empty.
int WithReceiver(const Common& common,
                 const std::function<Receiver::Result(Receiver&)>& act,
                 const Receiver::Listener& listener = {});

// Each adds a subcommand with its options to the tree. When that is chosen, `run` is set. `common`
// and `run` outlive the tree.
void AddList(CLI::App& app, const Common& common, Run& run);
void AddModerator(CLI::App& app, const Common& common, Run& run);
void AddPlay(CLI::App& app, const Common& common, Run& run);
void AddStop(CLI::App& app, const Common& common, Run& run);
void AddLogout(CLI::App& app, const Common& common, Run& run);
void AddKeepAlive(CLI::App& app, const Common& common, Run& run);
void AddQuitControl(CLI::App& app, const Common& common, Run& run);
void AddWatch(CLI::App& app, const Common& common, Run& run);
void AddWait(CLI::App& app, const Common& common, Run& run);
void AddExplain(CLI::App& app, const Common& common, Run& run);
void AddDoctor(CLI::App& app, const Common& common, Run& run);
/// Prints the completion script for a shell, made from `app`, the whole tree.
void AddCompletion(CLI::App& app, const Common& common, Run& run);

}  // namespace screenctl

#endif  // CONTROLLER_COMMAND_H_
