#include "tests/support/LogCapture.h"

#include <cctype>
#include <cstdio>

#include "tests/support/ScriptedPeer.h"

namespace sr_test {

namespace {

// Offset of the " [file:line]" that a traced write puts behind the caller's format, npos for a
// plain one. The format tells them apart; the expanded text does not, for error messages end the
// same way.
size_t FindPlace(const std::string& format) {
    if (format.empty() || format.back() != ']')
        return std::string::npos;
    const size_t begin = format.rfind(" [");
    const size_t colon = format.rfind(':');
    if (begin == std::string::npos || colon == std::string::npos || colon < begin + 2)
        return std::string::npos;
    size_t end = colon + 1;
    while (std::isdigit(static_cast<unsigned char>(format[end])) != 0)
        ++end;
    return end > colon + 1 && end == format.size() - 1 ? begin : std::string::npos;
}

std::string Expand(const char* format, va_list args) {
    va_list measured;
    va_copy(measured, args);
    const int length = std::vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    if (length < 0)
        return std::string();
    std::string text(static_cast<size_t>(length) + 1, '\0');
    std::vsnprintf(&text[0], text.size(), format, args);
    text.resize(static_cast<size_t>(length));
    return text;
}

}  // namespace

LogCapture::LogCapture() {
    Open(nullptr, kLogDebug, true);
}

std::vector<LogCapture::Line> LogCapture::Lines() const {
    const std::lock_guard<std::mutex> lock(m_LinesMutex);
    return m_Lines;
}

int LogCapture::Count(LogLevel level, const std::string& text) const {
    const std::lock_guard<std::mutex> lock(m_LinesMutex);
    int count = 0;
    for (const Line& line : m_Lines) {
        if (line.level == level && line.text.compare(0, text.size(), text) == 0)
            ++count;
    }
    return count;
}

bool LogCapture::WaitForLines(LogLevel level, const std::string& text, int count) const {
    return WaitFor([&] { return Count(level, text) >= count; });
}

void LogCapture::fWriteLogva(FILE*, LogLevel level, const char* format, va_list args) {
    Line line{level, Expand(format, args), std::string()};
    const std::string composed(format);
    const size_t place = FindPlace(composed);
    if (place != std::string::npos) {
        const size_t suffix = composed.size() - place;
        line.place = composed.substr(place + 2, suffix - 3);
        line.text.resize(line.text.size() - suffix);
    }
    const std::lock_guard<std::mutex> lock(m_LinesMutex);
    m_Lines.push_back(line);
}

}  // namespace sr_test
