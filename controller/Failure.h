#ifndef CONTROLLER_FAILURE_H_
#define CONTROLLER_FAILURE_H_

#include <string>

namespace screenctl {

/// Exit codes; the man page and --help say the same.
enum class Exit {
    Done = 0,
    Refused = 1,  // the receiver answered with a result other than 0
    WrongUsage = 2,
    NoConnection = 3,  // none was made, or the link broke
    TimedOut = 4,
};

/// Why something was not done.
struct Failure {
    Exit exit = Exit::NoConnection;
    int code = 0;          // the library's, or the receiver's result
    std::string message;   // the library's text for the code; empty for a receiver's result
    std::string sentence;  // what has happened and what to do, for people
};

/// What a code of the library means for whoever runs a room.
struct Meaning {
    std::string message;  // the library's text; "..." stands for what depends on the request
    std::string meaning;
    std::string advice;
};
Meaning Explain(int code);

/// The library's text without the place in its source that it ends with.
std::string WithoutPlace(const std::string& message);

/// The failure that a negative code of the library stands for.
Failure FailureOf(int code, const std::string& message, const std::string& host);

/// One line on standard error: the sentence, and behind it code and message; with `json` an object
/// {"version": 1, "error": {"exit", "code", "message", "sentence"}}. Gives the exit code.
int Report(const Failure& failure, bool json);

}  // namespace screenctl

#endif  // CONTROLLER_FAILURE_H_
