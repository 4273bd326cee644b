/*
 * Exit codes of doctor, one for each cause; kFooter tells them to users.
 *
 * |  0 | all is well                                                                |
 * |  2 | the address is not of the right form, or another wrong usage               |
 * | 10 | the host refused the port                                                  |
 * | 11 | the host is silent: no answer to the connection in 3 s                     |
 * | 12 | the network failed in another way, e.g. there is no route                  |
 * | 13 | connected, but neither of two requests was answered in time                |
 * | 14 | the link was closed before the first answer was whole: it may be no        |
 * |    | receiver                                                                   |
 * | 15 | the list of all senders failed                                             |
 * | 16 | the list of the non-local ones failed                                      |
 * | 17 | the list of the valid ones failed                                          |
 * | 18 | the moderator failed                                                       |
 */
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "controller/Command.h"
#include "controller/Text.h"

namespace screenctl {

namespace {

using std::chrono::steady_clock;

constexpr int kNothingConnected = -6528001;

constexpr int kRefused = 10;
constexpr int kSilent = 11;
constexpr int kNetwork = 12;
constexpr int kNoAnswer = 13;
constexpr int kNoReceiver = 14;
constexpr int kListAll = 15;
constexpr int kListNonLocal = 16;
constexpr int kListValid = 17;
constexpr int kModerator = 18;

constexpr const char* kFooter =
    R"(--wait does not apply: doctor looks once. The first request is the one for the moderator,
whose answer is short; when that fails, a list is asked for on a new connection, since a receiver
may fail with one of them only.

Exit code: 0 all is well; 2 the address has not the right form, or another wrong usage; 10 the
port is refused; 11 the host is silent, no answer to the connection in 3 s; 12 another failure of
the network; 13 connected, but no answer in time; 14 the link was closed before the first answer
was whole, perhaps by something that is no receiver; 15 list-all failed; 16 list-nonlocal failed;
17 list-valid failed; 18 the moderator failed.)";

/// What went wrong, its exit code as doctor's.
Failure With(Failure failure, int exit) {
    failure.exit = static_cast<Exit>(exit);
    return failure;
}

Failure OfConnect(Failure failure, const std::string& host) {
    if (failure.exit == Exit::WrongUsage)
        return failure;
    if (failure.code == kNothingConnected)
        return With(failure, kSilent);
    if (failure.code != -ECONNREFUSED)
        return With(failure, kNetwork);
    failure.sentence = fmt::format(
        "No receiver is listening on {}, though the host is there: start the receiver, and check "
        "that the address is its own.",
        host);
    return With(failure, kRefused);
}

Failure OfFirstAnswer(Failure failure, const std::string& host) {
    if (failure.exit == Exit::TimedOut) {
        failure.sentence = fmt::format(
            "Something at {} takes connections but does not answer: restart the receiver, and "
            "check that nothing else uses its port 19996.",
            host);
        return With(failure, kNoAnswer);
    }
    failure.sentence = fmt::format(
        "The connection to {} ended before the first answer: check that a receiver, and nothing "
        "else, listens there and that it takes more clients, then restart it.",
        host);
    return With(failure, kNoReceiver);
}

struct Step {
    const char* name;
    std::function<Receiver::Result()> act;
    std::function<Failure(const Failure&)> diagnose;
};

Receiver::Result CheckAddress(const std::string& host) {
    if (IsDottedAddress(host))
        return std::nullopt;
    return Receiver(host, Trace()).Connect();  // has the sentence, and tries nothing
}

Receiver::Result AskModerator(Receiver& receiver) {
    ScreenReceiverStub::ModeratorInfo info = {};
    return receiver.GetModerator(info);
}

Receiver::Result AskList(Receiver& receiver, Which which) {
    std::vector<ScreenSenderInfo> senders;
    return receiver.List(which, senders);
}

/// One answer is enough. What follows tells which requests fail.
Receiver::Result AwaitFirstAnswer(Receiver& receiver) {
    Receiver::Result failure = AskModerator(receiver);
    if (failure && !receiver.Connect() && !AskList(receiver, Which::All))
        failure.reset();
    return failure;
}

Step ListStep(const char* name, Receiver& receiver, Which which, int exit) {
    return {name, [&receiver, which] { return AskList(receiver, which); },
            [exit](const Failure& failure) { return With(failure, exit); }};
}

std::vector<Step> StepsFor(Receiver& receiver) {
    return {
        {"address", [&receiver] { return CheckAddress(receiver.Host()); },
         [](const Failure& failure) { return failure; }},
        {"connect", [&receiver] { return receiver.Connect(); },
         [&receiver](const Failure& failure) { return OfConnect(failure, receiver.Host()); }},
        {"first-answer", [&receiver] { return AwaitFirstAnswer(receiver); },
         [&receiver](const Failure& failure) { return OfFirstAnswer(failure, receiver.Host()); }},
        ListStep("list-all", receiver, Which::All, kListAll),
        ListStep("list-nonlocal", receiver, Which::NonLocal, kListNonLocal),
        ListStep("list-valid", receiver, Which::Valid, kListValid),
        {"moderator", [&receiver] { return AskModerator(receiver); },
         [](const Failure& failure) { return With(failure, kModerator); }},
    };
}

void PrintStep(const char* name, double ms, const Receiver::Result& failure, bool json) {
    if (json) {
        PrintJson({{"step", name},
                   {"ok", !failure},
                   {"ms", std::round(ms * 1000) / 1000},
                   {"code", failure ? failure->code : 0},
                   {"message", failure ? failure->message : ""},
                   {"advice", failure ? failure->sentence : ""}});
        return;
    }
    Print(fmt::format("{:<13}  {:<6}  {:>9.1f} ms\n", name, failure ? "failed" : "ok", ms));
    std::fflush(stdout);
}

/// Does it, prints how it went, and gives why it failed.
Receiver::Result Do(const Step& step, bool json) {
    const auto begin = steady_clock::now();
    Receiver::Result failure = step.act();
    const std::chrono::duration<double, std::milli> time = steady_clock::now() - begin;
    if (failure)
        failure = step.diagnose(*failure);
    PrintStep(step.name, time.count(), failure, json);
    return failure;
}

int Diagnose(const Common& common) {
    Receiver receiver(common.host, common.trace);
    int exit = static_cast<int>(Exit::Done);
    for (const Step& step : StepsFor(receiver)) {
        if (const Receiver::Result failure = Do(step, common.json)) {
            exit = Report(*failure, common.json);
            break;
        }
    }
    if (common.json)
        PrintJson({{"step", "result"}, {"exit", exit}});
    return exit;
}

}  // namespace

void AddDoctor(CLI::App& app, const Common& common, Run& run) {
    CLI::App* command = app.add_subcommand(
        "doctor", "Finds out, step by step, what is wrong between here and a receiver");
    command->footer(kFooter);
    command->callback([&common, &run] { run = [&common] { return Diagnose(common); }; });
}

}  // namespace screenctl
