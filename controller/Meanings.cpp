#include <algorithm>
#include <array>
#include <cerrno>

#include "TeskClient/ErrorHandler.h"
#include "controller/Failure.h"

namespace screenctl {

namespace {

struct Row {
    int code;
    const char* meaning;
    const char* advice;
};

constexpr std::array kRows = {
    Row{-6528101,
        "The receiver did not answer within 10 seconds, or the connection was closed meanwhile.",
        "Try again; if it stays silent, restart the receiver."},
    Row{-6528002, "The receiver closed the connection.",
        "Try again; if it happens again, look whether the receiver restarts or its software has "
        "failed."},
    Row{-6528001, "Nothing at this address answered within 3 seconds.",
        "Check the address, the cable, that the receiver is switched on, and that no firewall "
        "swallows port 19996."},
    Row{-6528004, "A program asked for a connection without saying to which port.",
        "Tell the maker of the program; the room and its receiver are not at fault."},
    Row{-6528005, "The program opened the connection twice at the same time.",
        "Nothing: the other connection is there. Tell the maker of the program if it stays so."},
    Row{-6528006, "The connection was made, but the greeting after it failed.",
        "Check that a receiver, and nothing else, listens at this address, and that no firewall "
        "or virus scanner is in between."},
    Row{-6527001, "The computer that runs the program could not start another thread.",
        "End programs that are not needed on it, or raise its limit of threads."},
    Row{-6527002, "The program tried to connect from inside a notification.",
        "Tell the maker of the program; the room and its receiver are not at fault."},
    Row{-6527004, "The program wanted to connect again before it had ever connected.",
        "Tell the maker of the program; the room and its receiver are not at fault."},
    Row{-ECONNREFUSED, "The host is there, but no receiver is listening on it.",
        "Start the receiver, and check that the address is the receiver's."},
    Row{-ETIMEDOUT, "The other end stopped answering and the network gave the connection up.",
        "Check the cable and that the receiver is switched on, then try again."},
    Row{-EHOSTUNREACH, "No host with this address was found in its network.",
        "Check the address, the cable, and that the receiver is switched on."},
    Row{-ENETUNREACH, "This computer knows no way to the receiver's network.",
        "Check the address, and this computer's network settings."},
    Row{-ECONNRESET, "The connection was cut off, mostly because the receiver restarted or failed.",
        "Try again; if it happens again, look at the receiver and the firewalls in between."},
    Row{-ENOTCONN, "There is no such address, no way to it, or no connection any more.",
        "Check the address, four numbers like 192.0.2.7, and the network, then try again."},
    Row{-EAGAIN, "The receiver stopped in the middle of a message for 5 seconds.",
        "Try again; if it happens again, restart the receiver, or look for losses in the network."},
    Row{-ENOMEM, "The computer that runs the program is out of memory.",
        "End programs that are not needed on it."},
};

constexpr Row kDone = {0, "No error.", "Nothing."};
constexpr Row kResult = {
    1, "The receiver's own result: it got the request and answered that it was not done.",
    "Ask the receiver's documentation for this number."};
constexpr Row kOtherErrno = {-1,
                             "The operating system reported an error while the network was used.",
                             "Check the network between here and the receiver, then try again."};
constexpr Row kOtherProgram = {
    -1, "A code of the same product family that this library itself never raises.",
    "If a receiver sent it as its result, ask the receiver's documentation."};
constexpr Row kUnknown = {-1, "Neither the library nor the operating system knows this code.",
                          "If a receiver sent it as its result, ask the receiver's documentation."};

constexpr int kLeastErrno = -4095;           // as Linux has it
constexpr int kGreatestOfFamily = -6527001;  // the system's errors end far above

const Row& RowOf(int code, const std::string& message) {
    if (code >= 0)
        return code == 0 ? kDone : kResult;
    const auto row = std::find_if(kRows.begin(), kRows.end(),
                                  [code](const Row& candidate) { return candidate.code == code; });
    if (row != kRows.end())
        return *row;
    if (message.rfind("Unknown error", 0) == 0)
        return kUnknown;
    return code >= kLeastErrno ? kOtherErrno : kOtherProgram;
}

std::string MessageOf(int code) {
    if (code > 0)  // the library would say OK, since it is no error of its own
        return "";
    NibErrorHandler error;
    // The system's errors have their details behind the text, the product family's inside it.
    const char* detail = code <= kGreatestOfFamily ? "..." : "";
    error.SetErrorAt(code, detail, detail, __FILE__, __LINE__);
    return WithoutPlace(error.GetErrorMessage());
}

}  // namespace

std::string WithoutPlace(const std::string& message) {
    return message.substr(0, message.rfind(" ["));
}

Meaning Explain(int code) {
    const std::string message = MessageOf(code);
    const Row& row = RowOf(code, message);
    return {message, row.meaning, row.advice};
}

}  // namespace screenctl
