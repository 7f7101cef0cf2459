#include "companions/mqtt/Log.h"

#include "companions/common/ServiceLog.h"

#include <mutex>

namespace kelto::halvek::mqtt {

using companion::ServiceLog;

namespace {

void Write(ServiceLog::Level level, std::string_view text) {
    static std::mutex mutex;
    static ServiceLog log("halvek-mqtt");
    const std::lock_guard lock(mutex);
    log.Write(level, text);
}

}  // namespace

void Log::Error(std::string_view text) {
    Write(ServiceLog::Level::Error, text);
}

void Log::Warning(std::string_view text) {
    Write(ServiceLog::Level::Warning, text);
}

void Log::Information(std::string_view text) {
    Write(ServiceLog::Level::Information, text);
}

}  // namespace kelto::halvek::mqtt
