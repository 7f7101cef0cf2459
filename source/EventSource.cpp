#include "source/EventSource.h"

#include "handler/EventHandler.h"
#include "kelto/core/Logger.h"
#include "kelto/osa/Exception.h"
#include "kelto/osa/MutexAutoLock.h"

namespace kelto::halvek {

EventSource::EventSource() : handlersLock("EventSource::HandlersLock") {}

void EventSource::Configure(const core::IniFile::Group& group) {
    const core::Logger& logger = core::Logger::GetLogger("halvek");
    logger.Debug("\t** Contents of Ini group we're configuring");
    logger.Debug("\t** Key\t\tValue");
    for (const auto& [key, value] : group) {
        logger.Debug("\t** %s\t\t%s", key.c_str(), value.c_str());
    }
}

void EventSource::AddHandler(EventHandler* handler) {
    const osa::MutexAutoLock lock(handlersLock);
    core::Logger::GetLogger("halvek").Trace("Called base class AddHandler");
    handlers.push_back(handler);
}

void EventSource::AddHandler(EventHandler* handler, const std::string&) {
    core::Logger::GetLogger("halvek").Trace("Called base class AddHandler(ph,eId)");
    AddHandler(handler);
}

void EventSource::FireEvent(Event& event) {
    if (!IsConfigured()) {
        throw osa::Exception("EventSource: not configured");
    }
    const core::Logger& logger = core::Logger::GetLogger("halvek");
    const osa::MutexAutoLock lock(handlersLock);
    event.StampTime();
    logger.Trace("\tEventSource::Firing Event");
    for (EventHandler* handler : handlers) {
        handler->HandleEvent(event);
        logger.Trace("\tEventSource::FireEvent Firing Event in the handlers list");
    }
    if (handlers.empty()) {
        logger.Debug("\tOn FireEvent _handlers list is empty");
    }
}

}  // namespace kelto::halvek
