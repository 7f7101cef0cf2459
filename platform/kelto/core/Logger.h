#pragma once

#include "kelto/core/LogLevel.h"

#include <atomic>
#include <cstdarg>
#include <string>

namespace kelto::core {

/**
 * A named source of log records.
 *
 * A record is one line "2026-11-21T03:40:00.123 Debug halvek: text" in local time on standard error, written by one
 * system call; under a service manager it goes to the journal instead. Loggers live as long as the process. All
 * operations may be called from any thread; the five that log may also be called in a signal handler (for texts of less
 * than a kilobyte): they take no lock, allocate nothing and keep errno. They never throw: without memory a longer text
 * is cut. A record below the level costs one relaxed load and no formatting.
 */
class Logger {
public:
    /**
     * The logger of that name, made at the first call. Also looks up how far local time is from UTC now, by which
     * all records are stamped. Not for signal handlers.
     */
    static Logger& GetLogger(const char* name);

    /** Sets the levels of all present and future loggers; a level named in the environment's KELTO_LOG wins. */
    static void SetLevels(const LogLevels& levels);

    /** Ends logging: later records are dropped. */
    static void Shutdown();

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    void Trace(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void Debug(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void Information(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void Warning(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void Error(const char* format, ...) const __attribute__((format(printf, 2, 3)));

    /** Whether records of that level are written. */
    bool IsEnabled(LogLevel recordLevel) const { return recordLevel >= level.load(std::memory_order_relaxed); }

    const std::string& GetName() const { return name; }

private:
    friend class LoggerRegistry;

    Logger(const char* loggerName, LogLevel initialLevel, Logger* olderLogger)
        : name(loggerName), older(olderLogger), level(initialLevel) {}

    void Write(LogLevel recordLevel, const char* format, va_list arguments) const;

    const std::string name;
    Logger* const older;
    std::atomic<LogLevel> level;
};

}  // namespace kelto::core
