#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <tuple>
#include <vector>

#include "controller/Command.h"
#include "controller/Text.h"

namespace screenctl {

namespace {

using Senders = std::vector<ScreenSenderInfo>;

struct ListOptions {
    Which which = Which::All;
    Format format = Format::Table;
    std::string sort = "receiver";
};

template <class Value>
void SortBy(Senders& senders, Value (ScreenSenderInfo::*value)() const) {
    std::stable_sort(senders.begin(), senders.end(),
                     [value](const ScreenSenderInfo& a, const ScreenSenderInfo& b) {
                         return (a.*value)() < (b.*value)();
                     });
}

void Sort(Senders& senders, const std::string& by) {
    if (by == "key")
        SortBy(senders, &ScreenSenderInfo::GetPrimaryKey);
    else if (by == "address")
        SortBy(senders, &ScreenSenderInfo::GetIpAddress);
    else if (by == "status")
        SortBy(senders, &ScreenSenderInfo::GetStatus);
    else if (by == "position")
        SortBy(senders, &ScreenSenderInfo::GetSplitScreen);
    else if (by == "name")
        std::stable_sort(senders.begin(), senders.end(),
                         [](const ScreenSenderInfo& a, const ScreenSenderInfo& b) {
                             return std::strcmp(a.GetUserName(), b.GetUserName()) < 0;
                         });
}

Receiver::Result List(Receiver& receiver, const ListOptions& options) {
    Senders senders;
    if (Receiver::Result failure = receiver.List(options.which, senders))
        return failure;
    Sort(senders, options.sort);
    PrintSenders(senders, options.format, TerminalColumns(STDOUT_FILENO));
    return std::nullopt;
}

}  // namespace

void AddList(CLI::App& app, const Common& common, Run& run) {
    CLI::App* command = app.add_subcommand("list", "Prints the senders that the receiver knows");
    const auto options = std::make_shared<ListOptions>();
    const std::map<std::string, Which> selections = {
        {"all", Which::All}, {"nonlocal", Which::NonLocal}, {"valid", Which::Valid}};
    command
        ->add_option("--which", options->which,
                     "all, nonlocal or valid senders, as the receiver selects them")
        ->transform(CLI::CheckedTransformer(selections).description("all|nonlocal|valid"))
        ->default_str("all");
    const std::map<std::string, Format> formats = {
        {"table", Format::Table}, {"json", Format::JsonLines}, {"csv", Format::Csv}};
    command->add_option("--format", options->format, "table, json (an object a line) or csv")
        ->transform(CLI::CheckedTransformer(formats).description("table|json|csv"))
        ->default_str("table")
        ->excludes(app.get_option("--json"));
    command->add_option("--sort", options->sort, "order of the senders; receiver: as it lists them")
        ->check(CLI::IsMember({"receiver", "key", "name", "address", "status", "position"}))
        ->capture_default_str();
    command->callback([&common, &run, options] {
        run = [&common, options] {
            Common own = common;
            own.json = common.json || options->format == Format::JsonLines;
            if (own.json)
                options->format = Format::JsonLines;
            return WithReceiver(own, [&](Receiver& receiver) { return List(receiver, *options); });
        };
    });
}

}  // namespace screenctl
