#include "controller/Failure.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>

#include "controller/Text.h"

namespace screenctl {

namespace {

// The library's codes that are no errno; its users know them by number.
constexpr int kNothingConnected = -6528001;
constexpr int kPeerClosed = -6528002;
constexpr int kNoAnswer = -6528101;

// What has happened and what to do; {} is the host.
std::string SentenceOf(int code) {
    switch (code) {
        case -ECONNREFUSED:
            return "No receiver is listening on {}, though the host is there: start the receiver, "
                   "or wait for it with --wait.";
        case kNothingConnected:
            return "Nothing answers at {}: check the address, the network and that the receiver is "
                   "switched on.";
        case -ENOTCONN:
        case -ENETUNREACH:
        case -EHOSTUNREACH:
            return "There is no way to {}: check the address and the network.";
        case kPeerClosed:
        case -ECONNRESET:
        case -EPIPE:
            return "The receiver {} closed the connection: try again, and look at the receiver if "
                   "it happens again.";
        case kNoAnswer:
            return "The receiver {} did not answer in time: try again, and restart the receiver if "
                   "it stays silent.";
        case -EAGAIN:
            return "The receiver {} stopped in the middle of an answer: try again, and restart the "
                   "receiver if it happens again.";
        default:
            return "The connection to {} failed: try again, and check the network.";
    }
}

// fmt::print() would throw where standard error cannot be written.
void PrintError(const std::string& line) {
    std::fputs((line + "\n").c_str(), stderr);
}

}  // namespace

Failure FailureOf(int code, const std::string& message, const std::string& host) {
    const bool timedOut = code == kNoAnswer || code == -EAGAIN;
    return {timedOut ? Exit::TimedOut : Exit::NoConnection, code, message,
            fmt::format(fmt::runtime(SentenceOf(code)), host)};
}

int Report(const Failure& failure, bool json) {
    const int exit = static_cast<int>(failure.exit);
    if (json) {
        const Json error = {{"version", 1},
                            {"error",
                             {{"exit", exit},
                              {"code", failure.code},
                              {"message", failure.message},
                              {"sentence", failure.sentence}}}};
        PrintError(ToLine(error));
    } else if (failure.code == 0) {
        PrintError(failure.sentence);
    } else {
        PrintError(fmt::format("{} [{}{}{}]", failure.sentence, failure.code,
                               failure.message.empty() ? "" : ": ", failure.message));
    }
    return exit;
}

}  // namespace screenctl
