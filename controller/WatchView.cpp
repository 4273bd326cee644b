#include "controller/WatchView.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>

#include "controller/Text.h"

namespace screenctl {

namespace {

using std::chrono::milliseconds;

constexpr const char* kKeys =
    " up/down: choose  p: play  s: stop  l: log out  r: refresh now  q: quit";
constexpr size_t kFixedRows = 5;  // title, two headings, status, keys
constexpr size_t kMinLog = 4;
constexpr size_t kMinName = 8;
constexpr size_t kAddress = 15;
constexpr size_t kStatus = 6;
constexpr size_t kPosition = 8;

struct Widths {
    size_t key;
    size_t name;
};

std::string ClockTime(WallTime time) {
    return fmt::format("{:%H:%M:%S}", fmt::localtime(std::chrono::system_clock::to_time_t(time)));
}

std::string WithMilliseconds(WallTime time) {
    const auto since = std::chrono::duration_cast<milliseconds>(time.time_since_epoch());
    return fmt::format("{}.{:03}", ClockTime(time), since.count() % 1000);
}

ViewLine Title(const WatchModel& model, const Frame& frame) {
    std::string state = "connecting";
    Style style = Style::Bad;
    if (model.Link() && model.Link()->connected) {
        state = "connected";
        style = Style::Good;
    } else if (model.Link()) {
        const auto left = std::chrono::ceil<std::chrono::seconds>(model.Link()->next - frame.now);
        state = left.count() > 0 ? fmt::format("lost, next try in {} s", left.count())
                                 : std::string("lost, trying again");
    }
    std::string title = fmt::format(" {}: {}", frame.host, state);
    if (!model.Answered())
        return {title, style};
    const std::string answered = fmt::format("  last answer {}", ClockTime(*model.Answered()));
    if (Columns(title) + answered.size() <= frame.columns)
        title = Fit(title, frame.columns - answered.size()) + answered;
    return {title, style};
}

/// The name gets what the others leave.
Widths WidthsOf(const WatchModel& model, size_t columns) {
    size_t key = 3;
    for (const ScreenSenderInfo& sender : model.Senders())
        key = std::max(key, std::to_string(sender.GetPrimaryKey()).size());
    const size_t others = 2 + key + kAddress + kStatus + kPosition + 4 * 2;
    return {key, columns > others + kMinName ? columns - others : kMinName};
}

std::string Row(const std::vector<std::string>& cells, const Widths& widths) {
    return fmt::format("{}{:>{}}  {}  {}  {:>{}}  {:>{}}", cells[0], cells[1], widths.key,
                       Fit(cells[2], widths.name), Fit(cells[3], kAddress), cells[4], kStatus,
                       cells[5], kPosition);
}

/// The page of the table on which the chosen sender is.
void AddSenders(std::vector<ViewLine>& lines,
                const WatchModel& model,
                size_t rows,
                const Widths& widths) {
    const auto chosen = model.Chosen();
    const size_t top = rows == 0 ? 0 : chosen.value_or(0) / rows * rows;
    for (size_t row = top; row < top + rows; ++row) {
        if (row >= model.Senders().size()) {
            lines.push_back({});
            continue;
        }
        const ScreenSenderInfo& sender = model.Senders()[row];
        const bool isChosen = row == chosen;
        lines.push_back(
            {Row({isChosen ? "> " : "  ", std::to_string(sender.GetPrimaryKey()),
                  Printable(sender.GetUserName()), DottedAddress(sender.GetIpAddress()),
                  std::to_string(sender.GetStatus()), std::to_string(sender.GetSplitScreen())},
                 widths),
             isChosen ? Style::Chosen : Style::Plain});
    }
}

void AddLog(std::vector<ViewLine>& lines, const WatchModel& model, size_t rows) {
    const auto& entries = model.Entries();
    const size_t shown = std::min(rows, entries.size());
    for (size_t i = entries.size() - shown; i < entries.size(); ++i)
        lines.push_back(
            {fmt::format(" {}  {}", WithMilliseconds(entries[i].time), entries[i].text)});
    lines.resize(lines.size() + rows - shown);
}

std::string Heading(const WatchModel& model, size_t columns) {
    const size_t senders = model.Senders().size();
    std::string heading = fmt::format("-- {} sender{} --", senders, senders == 1 ? "" : "s");
    heading.resize(std::max(columns, heading.size()), '-');
    return heading;
}

}  // namespace

std::vector<ViewLine> ViewOf(const WatchModel& model, const Frame& frame) {
    const size_t free = frame.rows - std::min(frame.rows, kFixedRows);
    const size_t log = std::max(std::min(free / 2, kMinLog), free / 3);
    const size_t table = std::min(free - log, std::max<size_t>(model.Senders().size(), 1));
    const Widths widths = WidthsOf(model, frame.columns);
    std::vector<ViewLine> lines = {
        Title(model, frame),
        {Row({"  ", "KEY", "NAME", "ADDRESS", "STATUS", "POSITION"}, widths), Style::Heading}};
    AddSenders(lines, model, table, widths);
    lines.push_back({Heading(model, frame.columns), Style::Heading});
    AddLog(lines, model, free - table);
    lines.push_back({" " + frame.status});
    lines.push_back({kKeys, Style::Heading});
    lines.resize(frame.rows);
    for (ViewLine& line : lines)
        line.text = Fit(line.text, frame.columns);
    return lines;
}

}  // namespace screenctl
