#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "controller/Command.h"
#include "controller/Text.h"

namespace screenctl {

namespace {

using Senders = std::vector<ScreenSenderInfo>;

template <class Value>
using Choices = std::vector<std::pair<std::string, Value>>;

const Choices<Which> kSelections = {
    {"all", Which::All}, {"nonlocal", Which::NonLocal}, {"valid", Which::Valid}};
const Choices<Format> kFormats = {
    {"table", Format::Table}, {"json", Format::JsonLines}, {"csv", Format::Csv}};

struct ListOptions {
    Which which = Which::All;
    std::optional<Format> format;
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
    PrintSenders(senders, *options.format, TerminalColumns(STDOUT_FILENO));
    return std::nullopt;
}

/// An option whose value has a name. CLI11 would take the number of an enumerator as well.
template <class Option, class Value>
void AddChoice(CLI::App& command,
               const std::string& name,
               Option& option,
               const Choices<Value>& choices,
               const std::string& description) {
    std::vector<std::string> names;
    for (const auto& choice : choices)
        names.push_back(choice.first);
    const auto take = [&option, &choices](const std::string& text) {
        const auto chosen =
            std::find_if(choices.begin(), choices.end(),
                         [&text](const auto& choice) { return choice.first == text; });
        option = chosen->second;
    };
    command.add_option_function<std::string>(name, take, description)
        ->check(OneOf(names))
        ->default_str(names.front());
}

/// --json and --format json say the same.
void SettleFormat(ListOptions& options, bool json) {
    if (!options.format)
        options.format = json ? Format::JsonLines : Format::Table;
    if (json && options.format != Format::JsonLines)
        throw CLI::ValidationError("--format", "--json wants another format, so leave one out");
}

}  // namespace

void AddList(CLI::App& app, const Common& common, Run& run) {
    CLI::App* command = app.add_subcommand("list", "Prints the senders that the receiver knows");
    const auto options = std::make_shared<ListOptions>();
    AddChoice(*command, "--which", options->which, kSelections,
              "all, nonlocal or valid senders, as the receiver selects them");
    AddChoice(*command, "--format", options->format, kFormats,
              "table, json (an object a line) or csv");
    command->add_option("--sort", options->sort, "order of the senders; receiver: as it lists them")
        ->check(OneOf({"receiver", "key", "name", "address", "status", "position"}))
        ->capture_default_str();
    command->callback([&common, &run, options] {
        SettleFormat(*options, common.json);
        run = [&common, options] {
            Common own = common;
            own.json = options->format == Format::JsonLines;
            return WithReceiver(own, [&](Receiver& receiver) { return List(receiver, *options); });
        };
    });
}

}  // namespace screenctl
