#pragma once

#include "event/Event.h"
#include "kelto/interfaces/AnalyticsInterface.h"

#include <cstddef>
#include <optional>

namespace kelto::halvek::source {

/** The name and the domain of the messages that both sources of analytics alerts subscribe to. */
constexpr const char* alertName = "AnalyticsAlert";
constexpr const char* alertDomain = "com.zentu.analytics";

/**
 * What the keys and values of an alert may take, in bytes. With two stamps of the time and the lines around it all, a
 * written event still fits into an empty pipe, which holds 65,536: more would be a short write, which costs a
 * descriptor for good.
 */
constexpr size_t mostAlertBytes = 60'000;

/** What handlers see of an alert. Point lists become "(x,y)|(x,y)", numbers with six significant digits. */
Event::Properties AlertToProperties(const interfaces::AnalyticsInterface::AnalyticsAlert& alert);

/** The same, but nothing for an alert that would take more than mostAlertBytes; in little time, however large it is. */
std::optional<Event::Properties> AlertToFittingProperties(const interfaces::AnalyticsInterface::AnalyticsAlert& alert);

}  // namespace kelto::halvek::source
