#include "handler/EventHandler.h"

#include "kelto/core/Logger.h"
#include "kelto/osa/Exception.h"

namespace kelto::halvek {

EventHandler::EventHandler() : filterChain(std::make_unique<FilterChain>()) {}

void EventHandler::Configure(const core::IniFile::Group& group) {
    const core::Logger& logger = core::Logger::GetLogger("halvek");
    logger.Debug("\t** Contents of Ini group we're configuring");
    logger.Debug("\t** Key\t\tValue");
    for (const auto& [key, value] : group) {
        logger.Debug("\t** %s\t\t%s", key.c_str(), value.c_str());
    }
    filterChain->Configure(group);
}

void EventHandler::HandleEvent(Event& event) {
    if (!IsConfigured()) {
        throw osa::Exception("EventHandler: not configured");
    }
    if (filterChain->IsFiltered()) {
        return;
    }
    PerformAction(event);
}

}  // namespace kelto::halvek
