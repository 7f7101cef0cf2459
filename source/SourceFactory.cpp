#include "source/SourceFactory.h"

#include "kelto/core/Logger.h"
#include "source/EventServerSource.h"
#include "source/TimerEventSource.h"

namespace kelto::halvek {

std::unique_ptr<EventSource> CreateEventSource(const std::string& typeName, HalvekEnv*) {
    const core::Logger& logger = core::Logger::GetLogger("halvek");
    logger.Debug("\tCreating EventSource: %s", typeName.c_str());
    if (typeName == "Timer") {
        return std::make_unique<source::TimerEventSource>(typeName);
    }
    if (typeName == "System") {
        return nullptr;
    }
    if (typeName == "server") {
        return std::make_unique<source::EventServerSource>();
    }
    logger.Warning("\tUnknown EventSource: %s", typeName.c_str());
    return nullptr;
}

}  // namespace kelto::halvek
