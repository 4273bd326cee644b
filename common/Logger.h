#ifndef COMMON_LOGGER_H_
#define COMMON_LOGGER_H_

#include <cstdarg>
#include <cstdio>

#include "common/Export.h"
#include "common/LockOrder.h"

inline namespace screen_receiver {

/// Severity of a log line; a smaller value is more severe. Values in between are legal.
enum LogLevel : int {
    kLogFatal = 0,
    kLogAlert = 100,
    kLogCritical = 200,
    kLogError = 300,
    kLogWarning = 400,
    kLogNotice = 500,
    kLogInfo = 600,
    kLogDebug = 700,
};

/**
 * Writes timestamped, levelled lines to standard error or to a file.
 *
 * Owns the log file. Closed after construction: a closed logger writes nothing, and a write to it
 * (or below the threshold) costs two tests of a field.
 *
 * Threads: any thread may write, lines never mix. Open and Close take no lock: call them before the
 * threads that write have started and after they have ended.
 *
 * A line reads `HH:MM:SS.mmm LABEL | message [file:line]`, local time, and is flushed at once.
 */
class SR_API Logger {
public:
    Logger();
    ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    /**
     * Closes the log that is open, if any, and opens another one.
     *
     * @param path    null for standard error, else a file, passed to fopen unchanged.
     * @param level   threshold: lines with a greater level are dropped. Replaced also on failure.
     * @param append  true keeps what the file holds, false truncates it.
     * @return 0, or -10 when the file cannot be opened; the logger is then closed.
     *
     * Example:
     * @code
     * stub.GetLogger()->Open("/var/log/room.log", kLogInfo, true);
     * @endcode
     */
    int Open(const char* path, LogLevel level, bool append);

    /// Closes the log. Harmless on a closed logger.
    void Close();

    bool IsOpen() const;

    /**
     * Writes one line with its place behind it. The place becomes part of the format, so `file`
     * must hold no '%'.
     *
     * Blocks: as long as the write and its flush take.
     */
    void Write(const char* file, int line, LogLevel level, const char* format, ...)
        __attribute__((format(printf, 5, 6)));

    /// Writes one line without a place.
    void Write(LogLevel level, const char* format, ...) __attribute__((format(printf, 3, 4)));

    void ConsoleWriteLogva(LogLevel level, const char* format, va_list args);
    void FileWriteLogva(LogLevel level, const char* format, va_list args);

    /**
     * Lays out and writes one line that has passed the threshold. Overridden to change the layout;
     * an override may itself log.
     */
    virtual void fWriteLogva(FILE* stream, LogLevel level, const char* format, va_list args);

protected:
    OrderedMutex<LockRank::Log> m_mutex;

    // Written by Open and Close only.
    FILE* m_pFile;
    LogLevel m_nLevel;
    void (Logger::*m_pfnWriteLogva)(LogLevel, const char*, va_list);

private:
    bool IsWritten(LogLevel level) const { return m_pfnWriteLogva != nullptr && level <= m_nLevel; }
};

}  // namespace screen_receiver

#endif  // COMMON_LOGGER_H_
