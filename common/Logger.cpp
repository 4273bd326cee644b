#include "common/Logger.h"

#include <sys/time.h>

#include <cstring>
#include <ctime>
#include <memory>
#include <new>

namespace {

// Six characters each; "UNKNOWN" is the one that breaks the column.
const char* LabelOf(LogLevel level) {
    switch (level) {
        case kLogFatal:
            return "FATAL ";
        case kLogAlert:
            return "ALERT ";
        case kLogCritical:
            return "CRIT  ";
        case kLogError:
            return "ERROR ";
        case kLogWarning:
            return "WARN  ";
        case kLogNotice:
            return "NOTICE";
        case kLogInfo:
            return "INFO  ";
        case kLogDebug:
            return "DEBUG ";
        default:
            return "UNKNOWN";
    }
}

const char* LastComponent(const char* path) {
    const char* slash = std::strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

void WriteLocalTime(FILE* stream) {
    timeval now;
    gettimeofday(&now, nullptr);
    tm local;
    localtime_r(&now.tv_sec, &local);
    char text[128];
    std::strftime(text, sizeof text, "%H:%M:%S", &local);
    std::fprintf(stream, "%s.%03d ", text, static_cast<int>(now.tv_usec / 1000));
}

}  // namespace

Logger::Logger() : m_pFile(nullptr), m_nLevel(kLogFatal), m_pfnWriteLogva(nullptr) {}

Logger::~Logger() {
    Close();
}

int Logger::Open(const char* path, LogLevel level, bool append) {
    Close();
    m_nLevel = level;
    if (path == nullptr) {
        m_pfnWriteLogva = &Logger::ConsoleWriteLogva;
        return 0;
    }
    m_pFile = std::fopen(path, append ? "a+" : "w");
    if (m_pFile == nullptr)
        return -10;
    m_pfnWriteLogva = &Logger::FileWriteLogva;
    return 0;
}

void Logger::Close() {
    m_pfnWriteLogva = nullptr;
    if (m_pFile != nullptr) {
        std::fclose(m_pFile);
        m_pFile = nullptr;
    }
}

bool Logger::IsOpen() const {
    return m_pfnWriteLogva != nullptr;
}

void Logger::Write(const char* file, int line, LogLevel level, const char* format, ...) {
    if (!IsWritten(level))
        return;
    // Room for " [", ":", a line of eleven characters, "]" and the final zero.
    const size_t size = std::strlen(format) + std::strlen(file) + 16;
    const std::unique_ptr<char[]> placed(new (std::nothrow) char[size]);
    if (placed == nullptr)
        return;
    std::snprintf(placed.get(), size, "%s [%s:%d]", format, LastComponent(file), line);
    va_list args;
    va_start(args, format);
    (this->*m_pfnWriteLogva)(level, placed.get(), args);
    va_end(args);
}

void Logger::Write(LogLevel level, const char* format, ...) {
    if (!IsWritten(level))
        return;
    va_list args;
    va_start(args, format);
    (this->*m_pfnWriteLogva)(level, format, args);
    va_end(args);
}

void Logger::ConsoleWriteLogva(LogLevel level, const char* format, va_list args) {
    fWriteLogva(stderr, level, format, args);
}

void Logger::FileWriteLogva(LogLevel level, const char* format, va_list args) {
    fWriteLogva(m_pFile, level, format, args);
}

void Logger::fWriteLogva(FILE* stream, LogLevel level, const char* format, va_list args) {
    boost::lock_guard<decltype(m_mutex)> lock(m_mutex);
    WriteLocalTime(stream);
    std::fputs(LabelOf(level), stream);
    std::fputs("| ", stream);
    std::vfprintf(stream, format, args);
    std::fputc('\n', stream);
    std::fflush(stream);
}
