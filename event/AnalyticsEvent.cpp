#include "event/AnalyticsEvent.h"

namespace kelto::halvek::event {

AnalyticsEvent::AnalyticsEvent(const Properties& eventProperties) : Event(eventProperties) {}

std::string AnalyticsEvent::ToString() const {
    return "{Event: AnalyticsEvent}";
}

}  // namespace kelto::halvek::event
