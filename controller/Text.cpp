#include "controller/Text.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <string_view>

// Names are UTF-8 whatever the user's locale is: main() has set LC_CTYPE to one that is.

namespace screenctl {

namespace {

constexpr const char* kEllipsis = "…";
constexpr size_t kGap = 2;
constexpr size_t kMinName = 8;
constexpr size_t kNameColumn = 1;

using Row = std::vector<std::string>;

struct Character {
    wchar_t code;
    size_t size;  // bytes; 1 for a byte that is no UTF-8
    bool shown;   // by a terminal, as it is
};

struct Range {
    wchar_t first;
    wchar_t last;
};

// The terminal takes them for printable, though they show nothing, so that two names look the same,
// or change how the rest of a line is shown.
constexpr std::array kInvisible = {
    Range{0x00AD, 0x00AD}, Range{0x034F, 0x034F}, Range{0x061C, 0x061C},  Range{0x115F, 0x1160},
    Range{0x17B4, 0x17B5}, Range{0x180E, 0x180E}, Range{0x200B, 0x200C},  Range{0x200E, 0x200F},
    Range{0x2028, 0x202E}, Range{0x2060, 0x206F}, Range{0x3164, 0x3164},  Range{0xFEFF, 0xFEFF},
    Range{0xFFA0, 0xFFA0}, Range{0xFFF9, 0xFFFB}, Range{0xE0000, 0xE007F}};

bool IsInvisible(wchar_t code) {
    return std::any_of(kInvisible.begin(), kInvisible.end(), [code](const Range& range) {
        return code >= range.first && code <= range.last;
    });
}

Character FirstOf(std::string_view text) {
    wchar_t code = 0;
    std::mbstate_t state = {};
    const size_t size = std::mbrtowc(&code, text.data(), text.size(), &state);
    if (size == 0 || size > text.size())
        return {0, 1, false};
    const bool shown =
        std::iswprint(static_cast<wint_t>(code)) && wcwidth(code) >= 0 && !IsInvisible(code);
    return {code, size, shown};
}

size_t ColumnsOf(const Character& character) {
    return character.shown ? static_cast<size_t>(wcwidth(character.code)) : 1;
}

/// The longest beginning that takes at most so many columns.
std::string_view Beginning(std::string_view text, size_t columns) {
    size_t end = 0;
    while (end < text.size()) {
        const Character next = FirstOf(text.substr(end));
        if (ColumnsOf(next) > columns)
            break;
        columns -= ColumnsOf(next);
        end += next.size;
    }
    return text.substr(0, end);
}

Row CellsOf(const ScreenSenderInfo& sender) {
    return {std::to_string(sender.GetPrimaryKey()), Printable(sender.GetUserName()),
            DottedAddress(sender.GetIpAddress()), std::to_string(sender.GetStatus()),
            std::to_string(sender.GetSplitScreen())};
}

size_t WidthOf(const std::vector<size_t>& widths) {
    size_t sum = kGap * (widths.size() - 1);
    for (const size_t width : widths)
        sum += width;
    return sum;
}

/// The widths that the cells want, made to fit: the name is cut first, then the last columns go.
std::vector<size_t> WidthsOf(const std::vector<Row>& rows, size_t columns) {
    std::vector<size_t> widths(rows.front().size());
    for (const Row& row : rows) {
        for (size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], Columns(row[i]));
    }
    if (columns == 0)
        return widths;
    size_t& name = widths[kNameColumn];
    const size_t wanted = name;
    name = std::min(wanted, kMinName);
    while (widths.size() > kNameColumn + 1 && WidthOf(widths) > columns)
        widths.pop_back();
    name = 0;
    const size_t others = WidthOf(widths);
    name = std::min(wanted, columns > others ? columns - others : 1);
    return widths;
}

void PrintTable(const std::vector<ScreenSenderInfo>& senders, size_t columns) {
    std::vector<Row> rows = {{"KEY", "NAME", "ADDRESS", "STATUS", "POSITION"}};
    for (const ScreenSenderInfo& sender : senders)
        rows.push_back(CellsOf(sender));
    const std::vector<size_t> widths = WidthsOf(rows, columns);
    for (const Row& row : rows) {
        std::string line;
        for (size_t i = 0; i < widths.size(); ++i)
            line += (i == 0 ? "" : std::string(kGap, ' ')) + Fit(row[i], widths[i]);
        line.erase(line.find_last_not_of(' ') + 1);
        Print(fmt::format("{}\n", columns == 0 ? line : Beginning(line, columns)));
    }
}

std::string Quoted(const std::string& value) {
    if (value.find_first_of(",\"") == std::string::npos)
        return value;
    std::string quoted = "\"";
    for (const char c : value)
        quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
}

// RFC 4180.
void PrintCsv(const std::vector<ScreenSenderInfo>& senders) {
    Print("key,name,address,status,position,os,app,pointer\r\n");
    for (const ScreenSenderInfo& sender : senders)
        Print(fmt::format("{},{},{},{},{},{},{},{}\r\n", sender.GetPrimaryKey(),
                          Quoted(Printable(sender.GetUserName())),
                          DottedAddress(sender.GetIpAddress()), sender.GetStatus(),
                          sender.GetSplitScreen(), sender.GetOSType(), sender.GetAppType(),
                          sender.GetPointInputType()));
}

}  // namespace

std::string Printable(const std::string& name) {
    std::string printable;
    for (std::string_view rest = name; !rest.empty();) {
        const Character first = FirstOf(rest);
        const std::string_view bytes = rest.substr(0, first.size);
        if (first.shown) {
            printable += bytes;
        } else {
            for (const char byte : bytes)
                printable += fmt::format("\\x{:02X}", static_cast<unsigned char>(byte));
        }
        rest.remove_prefix(first.size);
    }
    return printable;
}

size_t Columns(const std::string& text) {
    size_t columns = 0;
    for (std::string_view rest = text; !rest.empty();) {
        const Character first = FirstOf(rest);
        columns += ColumnsOf(first);
        rest.remove_prefix(first.size);
    }
    return columns;
}

std::string Fit(const std::string& text, size_t columns) {
    std::string fitting = text;
    if (Columns(text) > columns) {
        fitting = Beginning(text, columns == 0 ? 0 : columns - 1);
        if (columns > 0)
            fitting += kEllipsis;
    }
    // A wide character may have left one column of the cut free.
    fitting.append(columns - Columns(fitting), ' ');
    return fitting;
}

size_t TerminalColumns(int descriptor) {
    if (const char* text = std::getenv("COLUMNS")) {
        size_t columns = 0;
        const char* end = text + std::strlen(text);
        if (std::from_chars(text, end, columns).ptr == end && columns > 0)
            return columns;
    }
    winsize size = {};
    return ioctl(descriptor, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

std::string DottedAddress(uint32_t address) {
    in_addr network = {};
    network.s_addr = htonl(address);
    std::array<char, INET_ADDRSTRLEN> text = {};
    return inet_ntop(AF_INET, &network, text.data(), text.size());
}

Json ToJson(const ScreenSenderInfo& sender) {
    return {{"key", sender.GetPrimaryKey()},
            {"name", Printable(sender.GetUserName())},
            {"address", DottedAddress(sender.GetIpAddress())},
            {"status", sender.GetStatus()},
            {"position", sender.GetSplitScreen()},
            {"os", sender.GetOSType()},
            {"app", sender.GetAppType()},
            {"pointer", sender.GetPointInputType()}};
}

std::string ToLine(const Json& members) {
    return members.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void Print(const std::string& text) {
    std::fputs(text.c_str(), stdout);
}

void PrintJson(const Json& members) {
    Json line = {{"version", 1}};
    line.update(members);
    Print(ToLine(line) + "\n");
    std::fflush(stdout);
}

void PrintSenders(const std::vector<ScreenSenderInfo>& senders, Format format, size_t columns) {
    switch (format) {
        case Format::Table:
            return PrintTable(senders, columns);
        case Format::Csv:
            return PrintCsv(senders);
        case Format::JsonLines:
            for (const ScreenSenderInfo& sender : senders)
                PrintJson(ToJson(sender));
    }
}

}  // namespace screenctl
