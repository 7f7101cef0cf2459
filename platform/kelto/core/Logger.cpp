#include "kelto/core/Logger.h"

#include "kelto/core/LogOutput.h"
#include "kelto/core/UtcOffset.h"

#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace kelto::core {

/**
 * All loggers of the process. They form a list that only grows at its front, so that looking one up, which every event
 * does several times, takes no lock.
 */
class LoggerRegistry {
public:
    /** Never destroyed: static objects of others may log until the very end. */
    static LoggerRegistry& Instance() {
        static LoggerRegistry& registry = *new LoggerRegistry;
        return registry;
    }

    LoggerRegistry() {
        const char* const name = std::getenv("KELTO_LOG");
        if (name == nullptr || *name == '\0') {
            return;
        }
        forced = ParseLogLevel(name);
        if (!forced) {
            UtcOffset::Refresh();
            Warn(Add("kelto.core"), "KELTO_LOG names no log level: %s", name);
        }
    }

    Logger* Find(std::string_view name) const {
        Logger* logger = newest.load(std::memory_order_acquire);
        while (logger != nullptr && logger->name != name) {
            logger = logger->older;
        }
        return logger;
    }

    Logger& FindOrAdd(const char* name) {
        const std::lock_guard lock(mutex);
        Logger* const known = Find(name);
        return known != nullptr ? *known : Add(name);
    }

    void SetLevels(const LogLevels& newLevels) {
        const std::lock_guard lock(mutex);
        levels = newLevels;
        for (const auto& logger : loggers) {
            logger->level.store(LevelOf(logger->name), std::memory_order_relaxed);
        }
    }

    LogOutput output;

private:
    /** For the constructor: the logger itself would ask for the registry, which is not there yet. */
    __attribute__((format(printf, 3, 4))) void Warn(const Logger& logger, const char* format, ...) {
        va_list arguments;
        va_start(arguments, format);
        output.Write(LogLevel::Warning, logger.GetName().c_str(), format, arguments);
        va_end(arguments);
    }

    Logger& Add(const char* name) {
        std::unique_ptr<Logger> logger(new Logger(name, LevelOf(name), newest.load(std::memory_order_relaxed)));
        loggers.push_back(std::move(logger));
        newest.store(loggers.back().get(), std::memory_order_release);
        return *loggers.back();
    }

    LogLevel LevelOf(const std::string& name) const {
        if (forced) {
            return *forced;
        }
        const auto own = levels.byLogger.find(name);
        return own == levels.byLogger.end() ? levels.general : own->second;
    }

    std::optional<LogLevel> forced;
    std::atomic<Logger*> newest = nullptr;

    // Guarded by mutex.
    std::mutex mutex;
    LogLevels levels;
    std::vector<std::unique_ptr<Logger>> loggers;
};

Logger& Logger::GetLogger(const char* name) {
    LoggerRegistry& registry = LoggerRegistry::Instance();
    UtcOffset::Refresh();
    Logger* const known = registry.Find(name);
    return known != nullptr ? *known : registry.FindOrAdd(name);
}

void Logger::SetLevels(const LogLevels& levels) {
    UtcOffset::Refresh();
    LoggerRegistry::Instance().SetLevels(levels);
}

void Logger::Shutdown() {
    LoggerRegistry::Instance().output.Close();
}

// Out of line, so that a call below the level saves no registers for it.
[[gnu::noinline]] void Logger::Write(LogLevel recordLevel, const char* format, va_list arguments) const {
    LoggerRegistry::Instance().output.Write(recordLevel, name.c_str(), format, arguments);
}

void Logger::Trace(const char* format, ...) const {
    if (!IsEnabled(LogLevel::Trace)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    Write(LogLevel::Trace, format, arguments);
    va_end(arguments);
}

void Logger::Debug(const char* format, ...) const {
    if (!IsEnabled(LogLevel::Debug)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    Write(LogLevel::Debug, format, arguments);
    va_end(arguments);
}

void Logger::Information(const char* format, ...) const {
    if (!IsEnabled(LogLevel::Information)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    Write(LogLevel::Information, format, arguments);
    va_end(arguments);
}

void Logger::Warning(const char* format, ...) const {
    if (!IsEnabled(LogLevel::Warning)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    Write(LogLevel::Warning, format, arguments);
    va_end(arguments);
}

void Logger::Error(const char* format, ...) const {
    if (!IsEnabled(LogLevel::Error)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    Write(LogLevel::Error, format, arguments);
    va_end(arguments);
}

}  // namespace kelto::core
