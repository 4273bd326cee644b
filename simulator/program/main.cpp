#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <charconv>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "simulator/ReceiverSimulator.h"
#include "simulator/program/ControlServer.h"
#include "simulator/program/Printer.h"

namespace {

using receiver_sim::Reply;

constexpr int kExitCannotListen = 1;
constexpr int kExitWrongUsage = 2;
constexpr double kMinSeconds = 0.001;
constexpr double kMaxSeconds = 86400;

constexpr const char* kFooter =
    R"(Commands come from standard input, a line each. "help" lists them.

Exit code: 0 after Ctrl-C, SIGTERM or the command quit; 1 when it cannot listen or cannot make the
control socket; 2 for wrong usage or a wrong scenario file.

Examples:
  receiver-sim                                    four senders, on port 19996 of this machine
  receiver-sim --address 127.0.0.2 --port 0 -v    on a free port; every frame is printed
  receiver-sim --scenario simulator/scenarios/meeting.json --json -v >traffic.jsonl
  echo 'fault on delay time=200' | receiver-sim   every answer 200 ms late
  receiver-sim --control /tmp/receiver.sock       steered through a Unix socket)";

struct Arguments {
    simulator::Options options;
    int senders = 4;
    std::string scenario;
    std::string records = "long";
    double confTimeout = 30;  // seconds; 0: never
    double notifyEvery = 0;   // seconds; 0: never
    std::string control;
    int verbosity = 0;
    bool json = false;
};

/// CLI::Range lets "nan" pass.
CLI::Validator Seconds(double least) {
    const auto check = [least](std::string& text) {
        char* end = nullptr;
        const double seconds = std::strtod(text.c_str(), &end);
        const bool right =
            !text.empty() && *end == '\0' && seconds >= least && seconds <= kMaxSeconds;
        return right ? "" : fmt::format("expected seconds from {} to {}", least, kMaxSeconds);
    };
    return CLI::Validator(check, "SECONDS");
}

/// Begins with a number that fits: CLI takes negative and too large ones as other numbers.
CLI::Validator Unsigned() {
    const auto check = [](std::string& text) {
        uint64_t number = 0;
        const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
        return result.ec == std::errc() ? "" : "expected a number from 0 to 18446744073709551615";
    };
    return CLI::Validator(check, "");
}

void AddReceiverOptions(CLI::App& app, Arguments& arguments) {
    app.add_option("--address", arguments.options.address, "IPv4 address to listen on")
        ->check(CLI::ValidIPV4)
        ->capture_default_str();
    app.add_option("--port", arguments.options.port, "port to listen on; 0 takes any free one")
        ->capture_default_str();
    CLI::Option* senders = app.add_option("--senders", arguments.senders,
                                          "number of senders that are there at the start")
                               ->check(CLI::Range(0, static_cast<int>(simulator::kMaxSenders)))
                               ->capture_default_str();
    app.add_option("--scenario", arguments.scenario,
                   "JSON file with the first senders and with what happens when")
        ->excludes(senders);
    app.add_option("--records", arguments.records, "size of the records in sender lists")
        ->check(CLI::IsMember({"short", "long"}))
        ->capture_default_str();
    app.add_option("--conf-timeout", arguments.confTimeout,
                   "seconds until conference control ends when it is not refreshed; 0: never")
        ->check(Seconds(0))
        ->capture_default_str();
    app.add_flag("--require-control", arguments.options.requireControl,
                 "only the client that has conference control may change anything");
    app.add_option("--seed", arguments.options.seed, "makes everything random come out the same")
        ->check(Unsigned())
        ->capture_default_str();
    app.add_option("--max-backlog", arguments.options.maxBacklog,
                   "a client is dropped when more than this is not read by it")
        ->transform(CLI::AsSizeValue(false))
        ->transform(Unsigned())  // the last one comes first
        ->capture_default_str();
    app.add_option("--notify-every", arguments.notifyEvery,
                   "seconds between notifications (8, running number, 0); none by default")
        ->check(Seconds(kMinSeconds));
}

void AddProgramOptions(CLI::App& app, Arguments& arguments) {
    app.add_option("--control", arguments.control, "path of a Unix socket that takes commands")
        ->check([](const std::string& path) { return path.empty() ? "path is empty" : ""; });
    app.add_flag("-v,--verbose", arguments.verbosity,
                 "print clients, frames with their faults, and timed actions; -vv: bytes, too");
    app.add_flag("--json", arguments.json, "print a JSON object a line");
}

/// Descriptors 0 to 2 that were closed, or a socket would get the number and be printed to.
void FillStandardDescriptors() {
    int opened = 0;
    do
        opened = open("/dev/null", O_RDWR);
    while (opened >= 0 && opened <= STDERR_FILENO);
    if (opened > STDERR_FILENO)
        close(opened);
}

/// The first Ctrl-C or SIGTERM ends the program in order, also while it is still starting, the
/// second one at once. On a thread of its own, for a reader of the program's output that stands
/// still holds up the others.
class Interruption {
public:
    explicit Interruption(const std::function<void()>& end) : m_Signals(m_Io, SIGINT, SIGTERM) {
        m_Signals.async_wait([this, end](const boost::system::error_code& error, int) {
            if (error)
                return;
            m_Signals.clear();
            end();
        });
        m_Thread = std::thread([this] { m_Io.run(); });
    }
    ~Interruption() {
        m_Io.stop();
        m_Thread.join();
    }
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

private:
    boost::asio::io_context m_Io{1};
    boost::asio::signal_set m_Signals;
    std::thread m_Thread;
};

/// Sends a notification every interval, for as long as its io_context runs.
class Ticker {
public:
    Ticker(boost::asio::io_context& io, simulator::ReceiverSimulator& receiver, double seconds)
        : m_Timer(io),
          m_Receiver(receiver),
          m_Interval(std::chrono::duration_cast<std::chrono::steady_clock::duration>(
              std::chrono::duration<double>(seconds))),
          m_Next(std::chrono::steady_clock::now()) {
        Wait();
    }

private:
    void Wait() {
        m_Next += m_Interval;
        m_Timer.expires_at(m_Next);
        m_Timer.async_wait([this](const boost::system::error_code& error) {
            if (error)
                return;
            m_nTicks = m_nTicks == INT32_MAX ? 1 : m_nTicks + 1;
            m_Receiver.Notify(simulator::kNotifyTick, m_nTicks, 0);
            Wait();
        });
    }

    boost::asio::steady_timer m_Timer;
    simulator::ReceiverSimulator& m_Receiver;
    const std::chrono::steady_clock::duration m_Interval;
    std::chrono::steady_clock::time_point m_Next;
    int32_t m_nTicks = 0;
};

/// The simulator's commands, and `quit`.
Reply Interpret(simulator::ReceiverSimulator& receiver, const std::string& line) {
    const size_t start = std::min(line.find_first_not_of(' '), line.size());
    const std::string command = line.substr(start, line.find_last_not_of(' ') + 1 - start);
    if (command == "quit")
        return {"ok", true};
    if (command == "help quit")
        return {"ok quit: ends the program"};
    Reply reply{receiver.Execute(line)};
    if (command == "help")
        reply.text += ", quit";
    return reply;
}

void SetUp(simulator::ReceiverSimulator& receiver,
           const Arguments& arguments,
           const std::optional<simulator::Scenario>& scenario) {
    if (scenario) {
        receiver.Play(*scenario);
        return;
    }
    for (int key = 1; key <= arguments.senders; ++key)
        receiver.AddSender(simulator::SampleSender(key));
}

bool Listen(simulator::ReceiverSimulator& receiver) {
    const std::error_code error = receiver.Start();
    if (error)
        std::fprintf(stderr, "receiver-sim: cannot listen on %s:%u: %s\n",
                     receiver.Address().c_str(), static_cast<unsigned>(receiver.Port()),
                     error.message().c_str());
    return !error;
}

std::unique_ptr<receiver_sim::ControlSocket> OpenControl(boost::asio::io_context& io,
                                                         const std::string& path,
                                                         receiver_sim::Interpreter interpreter) {
    try {
        return std::make_unique<receiver_sim::ControlSocket>(io, path, std::move(interpreter),
                                                             [&io] { io.stop(); });
    } catch (const boost::system::system_error& error) {
        std::fprintf(stderr, "receiver-sim: cannot make the control socket %s: %s\n", path.c_str(),
                     error.what());
        return nullptr;
    }
}

/// Until a signal or a command ends it.
void Serve(boost::asio::io_context& io,
           simulator::ReceiverSimulator& receiver,
           const receiver_sim::Printer& printer,
           double notifyEvery) {
    printer.Listening(receiver.Address(), receiver.Port());
    std::optional<Ticker> ticker;
    if (notifyEvery > 0)
        ticker.emplace(io, receiver, notifyEvery);
    const auto answered = [&](const Reply& reply) {
        printer.Answer(reply.text);
        if (reply.quit)
            io.stop();
    };
    receiver_sim::StandardInput input(
        io, [&](const std::string& line) { return Interpret(receiver, line); }, answered);
    // There may be nothing else to wait for: the end of standard input is not the program's.
    const auto untilStopped = boost::asio::make_work_guard(io);
    io.run();
    receiver.Stop();
    printer.Summary(receiver.GetStatistics());
}

int Run(const Arguments& arguments, const std::optional<simulator::Scenario>& scenario) {
    boost::asio::io_context io{1};
    const Interruption interruption([&io] { io.stop(); });
    const receiver_sim::Printer printer(arguments.json, arguments.verbosity);
    simulator::ReceiverSimulator receiver(arguments.options, printer.MakeObserver());
    SetUp(receiver, arguments, scenario);
    std::unique_ptr<receiver_sim::ControlSocket> control;
    if (!arguments.control.empty()) {
        control = OpenControl(io, arguments.control, [&receiver](const std::string& line) {
            return Interpret(receiver, line);
        });
        if (!control)
            return kExitCannotListen;
    }
    if (!Listen(receiver))
        return kExitCannotListen;
    Serve(io, receiver, printer, arguments.notifyEvery);
    return 0;
}

/// Nothing is started when the scenario is wrong.
int LoadAndRun(Arguments& arguments) {
    arguments.options.records =
        arguments.records == "short" ? simulator::RecordSize::Short : simulator::RecordSize::Long;
    // Up, or a very short time would become 0, which is none.
    arguments.options.confTimeout =
        std::chrono::milliseconds(static_cast<int64_t>(std::ceil(arguments.confTimeout * 1000)));
    std::optional<simulator::Scenario> scenario;
    if (!arguments.scenario.empty()) {
        std::string error;
        scenario = simulator::Scenario::Load(arguments.scenario, error);
        if (!scenario) {
            std::fprintf(stderr, "receiver-sim: %s\n", error.c_str());
            return kExitWrongUsage;
        }
    }
    return Run(arguments, scenario);
}

}  // namespace

int main(int argc, char** argv) {
    FillStandardDescriptors();
    // Who reads its output may go. Who has its terminal may change while it reads.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGTTIN, SIG_IGN);
    try {
        Arguments arguments;
        CLI::App app("Simulated screen receiver: serves the receiver's protocol until Ctrl-C.",
                     "receiver-sim");
        AddReceiverOptions(app, arguments);
        AddProgramOptions(app, arguments);
        app.footer(kFooter);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app.exit(error) == 0 ? 0 : kExitWrongUsage;
        }
        return LoadAndRun(arguments);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "receiver-sim: %s\n", error.what());
        return kExitCannotListen;
    }
}
