#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <limits>
#include <memory>

#include "controller/Command.h"
#include "controller/Text.h"

namespace screenctl {

namespace {

int PrintMeaning(int code, bool json) {
    const Meaning meaning = Explain(code);
    if (json) {
        PrintJson({{"code", code},
                   {"message", meaning.message},
                   {"meaning", meaning.meaning},
                   {"advice", meaning.advice}});
    } else {
        Print(fmt::format("{}{}{}\nMeaning: {}\nAdvice: {}\n", code,
                          meaning.message.empty() ? "" : ": ", meaning.message, meaning.meaning,
                          meaning.advice));
    }
    return static_cast<int>(Exit::Done);
}

}  // namespace

void AddExplain(CLI::App& app, const Common& common, Run& run) {
    CLI::App* command = app.add_subcommand("explain", "Tells what a code means and what to try");
    const auto code = std::make_shared<int32_t>(0);
    command->add_option("code", *code, "an error code of the library or a result, like -6528101")
        ->required()
        ->type_name("CODE")
        ->transform(
            Number(std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()));
    command->callback([&common, &run, code] {
        run = [&common, code] { return PrintMeaning(*code, common.json); };
    });
}

}  // namespace screenctl
