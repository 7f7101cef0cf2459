#include "source/SourceFactory.h"

#include "kelto/core/Logger.h"
#include "source/AlarmEventSource.h"
#include "source/AnalyticsEventSource.h"
#include "source/EventServerSource.h"
#include "source/MsgBusEventSource.h"
#include "source/ParkEventSource.h"
#include "source/TimerEventSource.h"

namespace kelto::halvek {

std::unique_ptr<EventSource> CreateEventSource(const std::string& typeName, HalvekEnv* env) {
    const core::Logger& logger = core::Logger::GetLogger("halvek");
    logger.Debug("\tCreating EventSource: %s", typeName.c_str());
    if (typeName == "Timer") {
        return std::make_unique<source::TimerEventSource>(typeName);
    }
    if (typeName == "Alarm") {
        return std::make_unique<source::AlarmEventSource>(typeName, env);
    }
    if (typeName == "MsgBus") {
        return std::make_unique<source::MsgBusEventSource>(typeName, env);
    }
    if (typeName == "Analytics") {
        return std::make_unique<source::AnalyticsEventSource>(typeName, env);
    }
    if (typeName == "Park") {
        return std::make_unique<source::ParkEventSource>(typeName, env);
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
