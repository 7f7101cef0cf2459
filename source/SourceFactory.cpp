#include "source/SourceFactory.h"

#include "kelto/core/Logger.h"
#include "source/AlarmEventSource.h"
#include "source/AnalyticsEventSource.h"
#include "source/EventServerSource.h"
#include "source/MsgBusEventSource.h"
#include "source/ParkEventSource.h"
#include "source/TimerEventSource.h"

#include <array>

namespace kelto::halvek {

namespace {

template <typename Source>
std::unique_ptr<EventSource> Create(const std::string& typeName, HalvekEnv* env) {
    return std::make_unique<Source>(typeName, env);
}

std::unique_ptr<EventSource> CreateTimer(const std::string& typeName, HalvekEnv*) {
    return std::make_unique<source::TimerEventSource>(typeName);
}

std::unique_ptr<EventSource> CreateServer(const std::string&, HalvekEnv*) {
    return std::make_unique<source::EventServerSource>();
}

std::unique_ptr<EventSource> CreateNone(const std::string&, HalvekEnv*) {
    return nullptr;
}

constexpr std::array types = {
    SourceType{.name = "Timer", .create = CreateTimer, .keys = source::TimerEventSource::keys.List()},
    SourceType{
        .name = "Alarm", .create = Create<source::AlarmEventSource>, .keys = source::AlarmEventSource::keys.List()},
    SourceType{.name = "MsgBus", .create = Create<source::MsgBusEventSource>, .keys = {}},
    SourceType{.name = "Analytics", .create = Create<source::AnalyticsEventSource>, .keys = {}},
    SourceType{.name = "Park", .create = Create<source::ParkEventSource>, .keys = source::ParkEventSource::keys.List()},
    SourceType{.name = "System", .create = CreateNone, .keys = {}},
    SourceType{.name = "server", .create = CreateServer, .keys = source::EventServerSource::keys.List()},
};

}  // namespace

std::span<const SourceType> SourceTypes() {
    return types;
}

std::unique_ptr<EventSource> CreateEventSource(const std::string& typeName, HalvekEnv* env) {
    const core::Logger& logger = core::Logger::GetLogger("halvek");
    logger.Debug("\tCreating EventSource: %s", typeName.c_str());
    for (const SourceType& type : types) {
        if (typeName == type.name) {
            return type.create(typeName, env);
        }
    }
    logger.Warning("\tUnknown EventSource: %s", typeName.c_str());
    return nullptr;
}

}  // namespace kelto::halvek
