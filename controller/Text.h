#ifndef CONTROLLER_TEXT_H_
#define CONTROLLER_TEXT_H_

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ScreenReceiver/ScreenSenderInfo.h"

namespace screenctl {

using Json = nlohmann::ordered_json;

/// A name that a terminal shows as it is: control characters and what is not UTF-8 become \xHH.
std::string Printable(const std::string& name);

/// Columns that a printable text takes on a terminal: two for wide characters, none for combining.
size_t Columns(const std::string& text);

/// Cut to so many columns, with "…" as the last one, or filled up with blanks.
std::string Fit(const std::string& text, size_t columns);

/// $COLUMNS, else the terminal's on this descriptor; 0 when it is none.
size_t TerminalColumns(int descriptor);

std::string DottedAddress(uint32_t address);

/// {"key", "name", "address", "status", "position", "os", "app", "pointer"}; the name is printable.
Json ToJson(const ScreenSenderInfo& sender);

/// One line, without its end. What is not UTF-8 is replaced.
std::string ToLine(const Json& members);

/// On standard output. Where that takes no more, std::ferror() tells, and nothing throws.
void Print(const std::string& text);

/// One line on standard output, with "version": 1 in front; at once.
void PrintJson(const Json& members);

enum class Format { Table, JsonLines, Csv };
void PrintSenders(const std::vector<ScreenSenderInfo>& senders, Format format, size_t columns);

}  // namespace screenctl

#endif  // CONTROLLER_TEXT_H_
