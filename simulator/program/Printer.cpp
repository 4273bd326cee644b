#include "simulator/program/Printer.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <vector>

#include "simulator/Wire.h"

namespace receiver_sim {

namespace {

using Json = nlohmann::ordered_json;
using simulator::ClientChange;

constexpr int kLevelTraffic = 1;
constexpr int kLevelBytes = 2;
constexpr size_t kMostBytesShown = 64;

void PrintLine(FILE* stream, std::string line) {
    line += '\n';
    // One call: the stream's own lock keeps the lines of two threads apart.
    std::fwrite(line.data(), 1, line.size(), stream);
    std::fflush(stream);
}

void PrintJson(const Json& object) {
    // Names may be any bytes.
    PrintLine(stdout, object.dump(-1, ' ', false, Json::error_handler_t::replace));
}

/// Local time in such a form, milliseconds, and a zone in such a form.
std::string TimeNow(const char* timeForm, const char* zoneForm) {
    const auto now = std::chrono::system_clock::now();
    const auto sinceEpoch =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
    const std::tm local = fmt::localtime(std::chrono::system_clock::to_time_t(now));
    char time[32];
    char zone[16];
    time[std::strftime(time, sizeof time, timeForm, &local)] = '\0';
    zone[std::strftime(zone, sizeof zone, zoneForm, &local)] = '\0';
    return fmt::format("{}.{:03}{}", time, sinceEpoch % 1000, zone);
}

std::string ClockTime() {
    return TimeNow("%H:%M:%S", "");
}

std::string IsoTime() {
    std::string time = TimeNow("%Y-%m-%dT%H:%M:%S", "%z");
    return time.insert(time.size() - 2, 1, ':');
}

std::string Hex(const std::string& bytes, size_t most, const char* separator) {
    const auto end = bytes.begin() + static_cast<std::ptrdiff_t>(std::min(bytes.size(), most));
    return fmt::format("{:02X}",
                       fmt::join(std::vector<unsigned char>(bytes.begin(), end), separator));
}

std::string HexText(const std::string& bytes) {
    std::string text = Hex(bytes, kMostBytesShown, " ");
    if (bytes.size() > kMostBytesShown)
        text += fmt::format(" ... {} bytes", bytes.size());
    return text;
}

std::vector<std::string> FaultNames(const std::string& faults) {
    std::vector<std::string> names;
    for (size_t at = 0; at < faults.size();) {
        const size_t end = std::min(faults.find(", ", at), faults.size());
        names.push_back(faults.substr(at, end - at));
        at = end + 2;
    }
    return names;
}

void AddContent(Json& object, const simulator::Content& content) {
    object["command"] = content.command != nullptr ? Json(content.command) : Json();
    if (content.sender)
        object["sender"] = *content.sender;
    if (content.option)
        object["option"] = *content.option;
    if (content.moderator) {
        object["id"] = content.moderator->id;
        object["flag"] = content.moderator->flag;
    }
    if (content.result)
        object["result"] = *content.result;
    if (content.records) {
        object["records"] = *content.records;
        object["long"] = content.longRecords;
    }
    if (content.notification)
        object["values"] = {content.notification->first, content.notification->second,
                            content.notification->third};
}

/// An answer is "ok" or "error", and a blank and a text behind it if there is more to say.
void AddAnswer(Json& object, const std::string& answer) {
    const size_t blank = std::min(answer.find(' '), answer.size());
    object["ok"] = answer.compare(0, blank, "ok") == 0;
    object["text"] = blank < answer.size() ? answer.substr(blank + 1) : "";
}

bool IsTrouble(ClientChange change) {
    return change == ClientChange::BacklogDropped || change == ClientChange::Failed;
}

const char* ChangeName(ClientChange change) {
    switch (change) {
        case ClientChange::Connected:
            return "connected";
        case ClientChange::Left:
            return "left";
        case ClientChange::Closed:
            return "closed";
        case ClientChange::BacklogDropped:
            return "dropped";
        case ClientChange::Failed:
            return "failed";
        case ClientChange::Faulted:
            return "faulted";
    }
    return "";
}

std::string ChangeText(ClientChange change, const std::string& peer) {
    switch (change) {
        case ClientChange::Connected:
            return "connected from " + peer;
        case ClientChange::BacklogDropped:
            return "dropped: it does not read";
        case ClientChange::Failed:
            return "dropped: out of memory";
        case ClientChange::Faulted:
            return "closed by a fault";
        default:
            return ChangeName(change);
    }
}

}  // namespace

simulator::Observer Printer::MakeObserver() const {
    simulator::Observer observer;
    observer.client = [this](uint64_t client, ClientChange change, const std::string& peer) {
        if (m_nLevel >= kLevelTraffic || IsTrouble(change))
            Client(client, change, peer);
    };
    if (m_nLevel >= kLevelTraffic) {
        observer.frame = [this](const simulator::Frame& frame) { Frame(frame); };
        observer.timeline = [this](const std::string& command, const std::string& answer) {
            Timeline(command, answer);
        };
    }
    if (m_nLevel >= kLevelBytes)
        observer.garbage = [this](uint64_t client, uint64_t bytes) { Garbage(client, bytes); };
    return observer;
}

void Printer::Listening(const std::string& address, uint16_t port) const {
    if (m_bJson)
        PrintJson({{"type", "listening"}, {"address", address}, {"port", port}});
    else
        PrintLine(stdout, fmt::format("listening on {}:{}", address, port));
}

void Printer::Answer(const std::string& answer) const {
    if (m_bJson) {
        Json object = {{"type", "answer"}};
        AddAnswer(object, answer);
        PrintJson(object);
    } else {
        PrintLine(stdout, answer);
    }
}

void Printer::Summary(const simulator::Statistics& statistics) const {
    if (m_bJson) {
        PrintJson({{"type", "summary"},
                   {"clients", statistics.clients},
                   {"clients_dropped", statistics.clientsDropped},
                   {"bytes_received", statistics.bytesReceived},
                   {"frames_received", statistics.framesReceived},
                   {"frames_sent", statistics.framesSent},
                   {"garbage_bytes", statistics.garbageBytes},
                   {"unknown_commands", statistics.unknownCommands},
                   {"faults_done", statistics.faultsDone}});
    } else {
        PrintLine(
            stdout,
            fmt::format("served {} clients ({} dropped), {} frames received, {} sent, "
                        "{} faults done",
                        statistics.clients, statistics.clientsDropped, statistics.framesReceived,
                        statistics.framesSent, statistics.faultsDone));
    }
}

void Printer::Frame(const simulator::Frame& frame) const {
    const bool withBytes = m_nLevel >= kLevelBytes;
    if (m_bJson) {
        Json object = {{"type", "frame"},
                       {"time", IsoTime()},
                       {"client", frame.client},
                       {"direction", frame.incoming ? "in" : "out"},
                       {"code", frame.code}};
        AddContent(object, simulator::ReadContent(frame));
        object["text"] = simulator::Describe(frame);
        if (withBytes)
            object["payload"] = Hex(frame.payload, frame.payload.size(), "");
        object["faults"] = FaultNames(frame.faults);
        PrintJson(object);
        return;
    }
    std::string line = fmt::format("{} #{} {} {}", ClockTime(), frame.client,
                                   frame.incoming ? "<-" : "->", simulator::Describe(frame));
    if (!frame.faults.empty())
        line += " [" + frame.faults + "]";
    if (withBytes)
        line += " | " + HexText(frame.payload);
    PrintLine(stdout, line);
}

void Printer::Client(uint64_t client, ClientChange change, const std::string& peer) const {
    if (m_bJson)
        PrintJson({{"type", "client"},
                   {"time", IsoTime()},
                   {"client", client},
                   {"change", ChangeName(change)},
                   {"peer", peer}});
    else
        PrintLine(IsTrouble(change) ? stderr : stdout,
                  fmt::format("{} #{} -- {}", ClockTime(), client, ChangeText(change, peer)));
}

void Printer::Garbage(uint64_t client, uint64_t bytes) const {
    if (m_bJson)
        PrintJson({{"type", "garbage"}, {"time", IsoTime()}, {"client", client}, {"bytes", bytes}});
    else
        PrintLine(stdout, fmt::format("{} #{} <- {} bytes of garbage", ClockTime(), client, bytes));
}

void Printer::Timeline(const std::string& command, const std::string& answer) const {
    if (m_bJson) {
        Json object = {{"type", "timeline"}, {"time", IsoTime()}, {"command", command}};
        AddAnswer(object, answer);
        PrintJson(object);
    } else {
        PrintLine(stdout, fmt::format("{} == {}: {}", ClockTime(), command, answer));
    }
}

}  // namespace receiver_sim
