#include "controller/Command.h"

#include <fmt/format.h>
#include <unistd.h>

#include <charconv>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <system_error>

namespace screenctl {

namespace {

constexpr double kMaxSeconds = 86400;

}  // namespace

CLI::Validator Number(int64_t least, int64_t most) {
    const auto check = [least, most](std::string& text) -> std::string {
        int64_t number = 0;
        const char* end = text.data() + text.size();
        const auto result = std::from_chars(text.data(), end, number);
        if (result.ec != std::errc() || result.ptr != end || number < least || number > most)
            return fmt::format("expected a whole number from {} to {}", least, most);
        text = std::to_string(number);
        return "";
    };
    return CLI::Validator(check, "");
}

CLI::Validator Seconds(double least) {
    const auto check = [least](std::string& text) {
        char* end = nullptr;
        const double seconds = std::strtod(text.c_str(), &end);
        const bool right =
            !text.empty() && *end == '\0' && seconds >= least && seconds <= kMaxSeconds;
        return right ? "" : fmt::format("expected seconds from {} to {}", least, kMaxSeconds);
    };
    return CLI::Validator(check, "");
}

std::chrono::milliseconds Milliseconds(double seconds) {
    return std::chrono::milliseconds(static_cast<int64_t>(std::ceil(seconds * 1000)));
}

void EndBySignalWithSuccess() {
    for (const int number : {SIGINT, SIGTERM}) {
        struct sigaction before = {};
        sigaction(number, nullptr, &before);
        if (before.sa_handler != SIG_IGN)
            std::signal(number, [](int) { _exit(static_cast<int>(Exit::Done)); });
    }
}

int WithReceiver(const Common& common,
                 const std::function<Receiver::Result(Receiver&)>& act,
                 const Receiver::Listener& listener) {
    Receiver receiver(common.host, common.trace);
    if (listener)
        receiver.Listen(listener);
    Receiver::Result failure = receiver.Connect(Milliseconds(common.wait));
    if (!failure)
        failure = act(receiver);
    return failure ? Report(*failure, common.json) : static_cast<int>(Exit::Done);
}

}  // namespace screenctl
