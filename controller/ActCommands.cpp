#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "controller/Command.h"
#include "controller/Text.h"

namespace screenctl {

namespace {

using Result = Receiver::Result;

/// Arguments of one command; each uses what it needs.
struct Arguments {
    int32_t id = 0;
    int flag = 0;
    int option = 0;
    double every = 10;  // seconds
    int64_t count = 0;  // 0: no end
};

using Act = std::function<Result(Receiver&, const Arguments&)>;

void AddId(CLI::App& command, int32_t& id, const std::string& description) {
    command.add_option("id", id, description)
        ->required()
        ->type_name("ID")
        ->transform(
            Number(std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()));
}

void PrintDone(const Common& common) {
    if (common.json)
        PrintJson({{"result", 0}});
}

/// A subcommand that prints nothing when it is done, but with --json.
std::shared_ptr<Arguments> AddAct(CLI::App& command, const Common& common, Run& run, Act act) {
    const auto arguments = std::make_shared<Arguments>();
    command.callback([&common, &run, arguments, act] {
        run = [&common, arguments, act] {
            return WithReceiver(common, [&](Receiver& receiver) {
                Result failure = act(receiver, *arguments);
                if (!failure)
                    PrintDone(common);
                return failure;
            });
        };
    });
    return arguments;
}

void AddModeratorGet(CLI::App& moderator, const Common& common, Run& run) {
    CLI::App* command = moderator.add_subcommand("get", "Prints the moderator's ID and flag");
    command->callback([&common, &run] {
        run = [&common] {
            return WithReceiver(common, [&](Receiver& receiver) {
                ScreenReceiverStub::ModeratorInfo info = {};
                Result failure = receiver.GetModerator(info);
                if (failure)
                    return failure;
                if (common.json)
                    PrintJson({{"id", info.nModeratorId}, {"flag", info.byModeratorFlag}});
                else
                    Print(fmt::format("id {} flag {}\n", info.nModeratorId, info.byModeratorFlag));
                return failure;
            });
        };
    });
}

void AddModeratorSet(CLI::App& moderator, const Common& common, Run& run) {
    CLI::App* command = moderator.add_subcommand("set", "Sets the moderator's ID and flag");
    const auto arguments =
        AddAct(*command, common, run, [](Receiver& receiver, const Arguments& given) {
            return receiver.SetModerator({given.id, static_cast<uint8_t>(given.flag)});
        });
    AddId(*command, arguments->id, "the moderator's");
    command->add_option("flag", arguments->flag, "0 to 255; what it means is the receiver's affair")
        ->required()
        ->type_name("FLAG")
        ->transform(Number(0, 255));
}

/// Becomes known at once, not only with the next request.
class LinkEnd {
public:
    Receiver::Listener Listener() {
        return [this](const int* values) {
            if (values != nullptr)
                return;
            const std::lock_guard<std::mutex> lock(m_Mutex);
            m_bEnded = true;
            m_Changed.notify_one();
        };
    }

    void WaitFor(std::chrono::milliseconds time) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Changed.wait_for(lock, time, [this] { return m_bEnded; });
    }

private:
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    bool m_bEnded = false;
};

Result KeepAlive(Receiver& receiver,
                 const Common& common,
                 const Arguments& arguments,
                 LinkEnd& linkEnd) {
    for (int64_t done = 0; arguments.count == 0 || done < arguments.count; ++done) {
        if (done > 0)
            linkEnd.WaitFor(Milliseconds(arguments.every));
        if (Result failure = receiver.KeepAlive())
            return failure;
        PrintDone(common);
        if (std::ferror(stdout))
            break;
        EndBySignalWithSuccess();
    }
    return std::nullopt;
}

}  // namespace

void AddModerator(CLI::App& app, const Common& common, Run& run) {
    CLI::App* command = app.add_subcommand("moderator", "Reads or writes the moderator settings");
    command->require_subcommand(1);
    AddModeratorGet(*command, common, run);
    AddModeratorSet(*command, common, run);
}

void AddPlay(CLI::App& app, const Common& common, Run& run) {
    CLI::App* command = app.add_subcommand("play", "Shows a sender's image");
    const auto arguments =
        AddAct(*command, common, run, [](Receiver& receiver, const Arguments& given) {
            return receiver.Play(given.id, static_cast<unsigned char>(given.option));
        });
    AddId(*command, arguments->id, "the sender's key, see list");
    command
        ->add_option("--option", arguments->option,
                     "0 to 255; what it means is the receiver's affair")
        ->type_name("N")
        ->transform(Number(0, 255))
        ->capture_default_str();
}

void AddStop(CLI::App& app, const Common& common, Run& run) {
    CLI::App* command = app.add_subcommand("stop", "Stops showing a sender's image");
    const auto arguments =
        AddAct(*command, common, run,
               [](Receiver& receiver, const Arguments& given) { return receiver.Stop(given.id); });
    AddId(*command, arguments->id, "the sender's key, see list");
}

void AddLogout(CLI::App& app, const Common& common, Run& run) {
    CLI::App* command = app.add_subcommand("logout", "Logs a sender out");
    const auto arguments = AddAct(
        *command, common, run,
        [](Receiver& receiver, const Arguments& given) { return receiver.Logout(given.id); });
    AddId(*command, arguments->id, "the sender's key, see list");
}

void AddKeepAlive(CLI::App& app, const Common& common, Run& run) {
    CLI::App* command = app.add_subcommand(
        "keepalive", "Takes and keeps conference control, until Ctrl-C or --count");
    const auto arguments = std::make_shared<Arguments>();
    command->add_option("--every", arguments->every, "seconds between two refreshes")
        ->type_name("SECONDS")
        ->check(Seconds(0.001))
        ->capture_default_str();
    command->add_option("--count", arguments->count, "ends after so many refreshes")
        ->type_name("N")
        ->transform(Number(1, std::numeric_limits<int64_t>::max()));
    command->callback([&common, &run, arguments] {
        run = [&common, arguments] {
            LinkEnd linkEnd;
            return WithReceiver(
                common,
                [&](Receiver& receiver) {
                    return KeepAlive(receiver, common, *arguments, linkEnd);
                },
                linkEnd.Listener());
        };
    });
}

void AddQuitControl(CLI::App& app, const Common& common, Run& run) {
    CLI::App* command = app.add_subcommand("quit-control", "Leaves conference control");
    AddAct(*command, common, run,
           [](Receiver& receiver, const Arguments&) { return receiver.QuitControl(); });
}

}  // namespace screenctl
