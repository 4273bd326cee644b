#ifndef TESTS_SUPPORT_LOGCAPTURE_H_
#define TESTS_SUPPORT_LOGCAPTURE_H_

#include <mutex>
#include <string>
#include <vector>

#include "common/Logger.h"

namespace sr_test {

/**
 * A logger that keeps what is written. Open on construction at the most talkative level; install it
 * with SetLogger() before the object has threads, and let it outlive the object.
 */
class LogCapture : public Logger {
public:
    struct Line {
        LogLevel level;
        std::string text;   // the message, its place suffix cut off
        std::string place;  // "File.cpp:12", empty for a plain line
    };

    LogCapture();

    std::vector<Line> Lines() const;
    /// Lines of this level whose text begins with `text`.
    int Count(LogLevel level, const std::string& text) const;
    /// Waits until there are at least `count` such lines.
    bool WaitForLines(LogLevel level, const std::string& text, int count = 1) const;

    void fWriteLogva(FILE* stream, LogLevel level, const char* format, va_list args) override;

private:
    mutable std::mutex m_LinesMutex;
    std::vector<Line> m_Lines;
};

}  // namespace sr_test

#endif  // TESTS_SUPPORT_LOGCAPTURE_H_
