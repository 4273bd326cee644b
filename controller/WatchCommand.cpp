#include <fmt/chrono.h>
#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <optional>
#include <variant>

#include "controller/Command.h"
#include "controller/Text.h"
#include "controller/WatchFeed.h"
#include "controller/WatchModel.h"
#include "controller/WatchScreen.h"

namespace screenctl {

namespace {

using Result = Receiver::Result;

/// 2026-11-21T12:32:41.123+01:00
std::string IsoTime(WallTime time) {
    const auto since =
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch());
    const std::tm local = fmt::localtime(std::chrono::system_clock::to_time_t(time));
    std::string zone = fmt::format("{:%z}", local);
    zone.insert(3, ":");
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}{}", local, since.count() % 1000, zone);
}

/// Prints a line for everything that is news.
class WatchPipe {
public:
    Result Run(WatchFeed& feed);

    void operator()(const Notified& notified) {
        Print("notification", notified.time, {{"values", notified.values}});
    }
    void operator()(const Lost& lost) { Print("lost", lost.time, {{"count", lost.count}}); }
    void operator()(const Listed& listed);
    void operator()(const Linked& linked);
    void operator()(const Acted&) {}  // nothing is ordered
    void operator()(const Unusable& unusable) { m_Failure = unusable.failure; }

private:
    static void Print(const char* type, WallTime time, const Json& members) {
        Json line = {{"type", type}, {"time", IsoTime(time)}};
        line.update(members);
        PrintJson(line);
    }

    WatchModel m_Model;
    Result m_Failure;
};

void WatchPipe::operator()(const Listed& listed) {
    const bool isFirst = !m_Model.HasList();
    const std::vector<Change> changes = m_Model.Update(listed.senders, listed.time);
    if (isFirst) {
        Json senders = Json::array();
        for (const ScreenSenderInfo& sender : listed.senders)
            senders.push_back(ToJson(sender));
        return Print("list", listed.time, {{"senders", senders}});
    }
    for (const Change& change : changes) {
        const char* type = change.kind == Change::Kind::Joined ? "joined"
                           : change.kind == Change::Kind::Left ? "left"
                                                               : "changed";
        Print(type, listed.time, ToJson(change.sender));
    }
}

void WatchPipe::operator()(const Linked& linked) {
    const LinkState& link = linked.link;
    if (!m_Model.SetLink(link))
        return;
    if (link.connected)
        return Print("link", linked.time, {{"state", "connected"}});
    Print("link", linked.time,
          {{"state", "lost"},
           {"code", link.code},
           {"message", link.message},
           {"retry_s", std::chrono::duration<double>(link.retry).count()}});
}

/// Until nobody reads the output any more.
Result WatchPipe::Run(WatchFeed& feed) {
    for (;;) {
        std::array<pollfd, 2> entries = {{{feed.Descriptor(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}}};
        poll(entries.data(), entries.size(), -1);
        if ((entries[1].revents & (POLLERR | POLLHUP)) != 0)
            return std::nullopt;
        for (const WatchEvent& event : feed.Take()) {
            std::visit(*this, event);
            if (m_Failure)
                return m_Failure;
            if (std::ferror(stdout))
                return Failure{Exit::WrongUsage, 0, "",
                               "Standard output takes no more: make room where it goes to."};
        }
    }
}

int Watch(const Common& common, double every) {
    const bool onTerminal = !common.json && isatty(STDIN_FILENO) && isatty(STDOUT_FILENO);
    if (onTerminal && common.trace.file == "-" && isatty(STDERR_FILENO))
        return Report({Exit::WrongUsage, 0, "",
                       "The trace would be written over the screen: give --trace a file, or send "
                       "standard error to one."},
                      common.json);
    if (!onTerminal)
        EndBySignalWithSuccess();
    WatchFeed& feed = WatchFeed::Start(common.host, common.trace, Milliseconds(every));
    const Result failure =
        onTerminal ? RunWatchScreen(feed, Printable(common.host)) : WatchPipe().Run(feed);
    // Not past the feed, which may be waiting for an answer.
    _exit(failure ? Report(*failure, common.json) : static_cast<int>(Exit::Done));
}

}  // namespace

void AddWatch(CLI::App& app, const Common& common, Run& run) {
    CLI::App* command = app.add_subcommand("watch",
                                           "Shows senders and notifications live; tries to connect "
                                           "again and again");
    command->footer(
        "On a terminal a full screen with keys; else, and with --json, a JSON object a line, until "
        "Ctrl-C.");
    const auto every = std::make_shared<double>(5);
    command->add_option("--every", *every, "seconds after which the list is read in any case")
        ->type_name("SECONDS")
        ->check(Seconds(0.1))
        ->capture_default_str();
    command->callback(
        [&common, &run, every] { run = [&common, every] { return Watch(common, *every); }; });
}

}  // namespace screenctl
