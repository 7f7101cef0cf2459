#pragma once

#include "event/Event.h"

#include <string>

namespace kelto::halvek::event {

/** An analytics alert as the analytics source saw it. */
class AnalyticsEvent : public Event {
public:
    explicit AnalyticsEvent(const Properties& eventProperties);

    std::string ToString() const override;
};

}  // namespace kelto::halvek::event
