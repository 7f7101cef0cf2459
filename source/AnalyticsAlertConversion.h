#pragma once

#include "event/Event.h"
#include "kelto/interfaces/AnalyticsInterface.h"

namespace kelto::halvek::source {

/** The name and the domain of the messages that both sources of analytics alerts subscribe to. */
constexpr const char* alertName = "AnalyticsAlert";
constexpr const char* alertDomain = "com.zentu.analytics";

/** What handlers see of an alert. Point lists become "(x,y)|(x,y)", numbers with six significant digits. */
Event::Properties AlertToProperties(const interfaces::AnalyticsInterface::AnalyticsAlert& alert);

}  // namespace kelto::halvek::source
