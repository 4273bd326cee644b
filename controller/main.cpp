#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <clocale>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "controller/Command.h"
#include "controller/Text.h"

namespace {

using namespace screenctl;

constexpr const char* kFooter =
    R"(Exit code: 0 done; 1 the receiver answered with a result other than 0; 2 wrong usage; 3 no
connection, or it broke; 4 time-out.

Examples:
  screenctl list --host 192.0.2.7           the senders of a receiver, as a table
  screenctl --json list | jq .name          an object a line, for scripts
  screenctl play 7                          shows the sender with this key
  screenctl doctor 192.0.2.7                what is wrong between here and there
  screenctl watch                           live; waits for the receiver, too)";

CLI::Validator NotEmpty() {
    return CLI::Validator(
        [](std::string& text) { return text.empty() ? "expected a name, found none" : ""; }, "");
}

void AddCommonOptions(CLI::App& app, Common& common) {
    app.add_option("--host", common.host, "the receiver's IPv4 address, dotted")
        ->type_name("ADDRESS")
        ->capture_default_str();
    app.add_option("--wait", common.wait, "seconds to keep trying to connect")
        ->type_name("SECONDS")
        ->check(Seconds(0))
        ->capture_default_str();
    app.add_flag("--json", common.json, "results and errors as JSON, an object a line");
    app.add_option("--trace", common.trace.file,
                   "appends what the library does to a file; -: standard error")
        ->type_name("FILE")
        ->check(NotEmpty());
    app.add_option("--trace-level", common.trace.level,
                   "300 errors, 600 also requests and answers, 700 everything")
        ->type_name("N")
        ->transform(Number(kLogFatal, kLogDebug))
        ->capture_default_str();
}

/// For an argument that says the same as an option.
CLI::Validator OnlyOne(const CLI::Option& option) {
    return CLI::Validator(
        [&option](std::string&) { return option.count() == 0 ? "" : "given as --host, too"; }, "");
}

void AddCommands(CLI::App& app, Common& common, Run& run) {
    AddList(app, common, run);
    AddWatch(app, common, run);
    AddWait(app, common, run);
    AddPlay(app, common, run);
    AddStop(app, common, run);
    AddLogout(app, common, run);
    AddModerator(app, common, run);
    AddKeepAlive(app, common, run);
    AddQuitControl(app, common, run);
    AddDoctor(app, common, run);
    AddExplain(app, common, run);
    AddCompletion(app, common, run);
    // Commands that have no arguments of their own.
    for (CLI::App* command : app.get_subcommands({})) {
        const std::string& name = command->get_name();
        if (name == "list" || name == "watch" || name == "doctor" || name == "keepalive" ||
            name == "quit-control")
            command->add_option("host", common.host, "as --host")
                ->type_name("ADDRESS")
                ->check(OnlyOne(*app.get_option("--host")));
    }
}

std::string NamesOfOptions(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::Option* option : app.get_options()) {
        if (!option->get_lnames().empty() && option != app.get_help_ptr())
            names.push_back(option->get_name());
    }
    return CLI::detail::join(names, ", ");
}

/// Below the footer that each command's help has.
void AddFooters(CLI::App& app, const std::string& text) {
    for (CLI::App* command : app.get_subcommands({})) {
        command->footer(command->get_footer() + "\n\n" + text);
        AddFooters(*command, text);
    }
}

/// CLI11 only tells that a command is missing, when there is a word that is none.
std::string WhatIsWrong(const CLI::ParseError& error, const CLI::App& app) {
    const std::vector<std::string> rest = app.remaining(true);
    if (error.get_exit_code() != static_cast<int>(CLI::ExitCodes::RequiredError) || rest.empty())
        return Printable(error.what());
    return fmt::format("\"{}\" is not a command", Printable(rest.front()));
}

int Misused(const std::string& what, bool json) {
    return Report({Exit::WrongUsage, 0, "",
                   fmt::format("{}; screenctl --help tells what is possible.", what)},
                  json);
}

/// What was printed may still be in memory, or lost.
int Finish(int exit, bool json) {
    if (std::fflush(stdout) == 0 && !std::ferror(stdout))
        return exit;
    return Report({Exit::WrongUsage, 0, "",
                   "Standard output cannot be written: give it to a program or file that takes it "
                   "all."},
                  json);
}

/// An error comes before the options are taken, and they may stand behind it.
bool WantsJson(int argc, char** argv) {
    CLI::App app;
    app.set_help_flag();
    app.allow_extras();
    bool json = false;
    std::string format;
    app.add_flag("--json", json);
    app.add_option("--format", format)->expected(0, 1)->take_last();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError&) {
        return true;  // what --json is given is no flag's value
    }
    return json || format == "json";
}

/// Else the first socket would get one of these numbers, and what is printed would be sent.
void OpenClosedStreams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        // Printing to a closed standard output has to fail; an error is told nowhere.
        if (fcntl(stream, F_GETFD) == -1)
            open("/dev/null", stream == STDERR_FILENO ? O_WRONLY : O_RDONLY);
    }
}

int Main(int argc, char** argv, bool json) {
    Common common;
    Run run;
    CLI::App app("Controls a screen receiver.", "screenctl");
    app.footer(kFooter);
    app.require_subcommand(1);
    app.fallthrough();
    AddCommonOptions(app, common);
    AddCommands(app, common, run);
    AddFooters(app, "Options of all commands: " + NamesOfOptions(app) + "; see screenctl --help.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& help) {
        return Finish(app.exit(help), json);
    } catch (const CLI::ParseError& error) {
        return Misused(WhatIsWrong(error, app), json);
    }
    return Finish(run(), json);
}

}  // namespace

int main(int argc, char** argv) {
    OpenClosedStreams();
    // Names are UTF-8, whatever the user's locale is.
    std::setlocale(LC_CTYPE, "C.UTF-8");
    const bool json = WantsJson(argc, argv);
    try {
        return Main(argc, argv, json);
    } catch (const std::exception& error) {
        return Report({Exit::WrongUsage, 0, "",
                       fmt::format("The system did not let the program go on, {}: look at the "
                                   "limits of this computer.",
                                   error.what())},
                      json);
    }
}
