#include "source/AnalyticsAlertConversion.h"

#include "kelto/core/StringUtil.h"

#include <sstream>

namespace kelto::halvek::source {

namespace {

using interfaces::AnalyticsInterface;

std::string PointListText(const std::vector<AnalyticsInterface::AnalyticsAlert::Point>& points) {
    std::ostringstream text;
    // Of its own accord a stream that gets no memory says nothing, and points would be missing.
    text.exceptions(std::ios::badbit);
    const char* separator = "";
    for (const auto& [x, y] : points) {
        text << separator << "(" << x << "," << y << ")";
        separator = "|";
    }
    return text.str();
}

/** What the values take at least: a percent escape is three bytes for one, a point no shorter than "(0,0)". */
size_t LeastSize(const AnalyticsInterface::AnalyticsAlert& alert) {
    constexpr size_t escape = 3;
    constexpr size_t point = sizeof("(0,0)") - 1;
    return alert.source.size() + alert.className.size() + alert.analyticsType.size() +
           (alert.ruleName.size() + alert.ruleDescription.size()) / escape +
           (alert.rulePoints.size() + alert.boxPoints.size()) * point + alert.mediaType.size() + alert.mediaUrl.size();
}

size_t SizeOf(const Event::Properties& properties) {
    size_t size = 0;
    for (const auto& [key, value] : properties) {
        size += key.size() + value.size();
    }
    return size;
}

}  // namespace

Event::Properties AlertToProperties(const AnalyticsInterface::AnalyticsAlert& alert) {
    return {{"eventType", "AnalyticsAlert"},
            {"source", alert.source},
            {"class", alert.className},
            {"analyticsType", alert.analyticsType},
            {"ruleName", core::StringUtil::UrlDecode(alert.ruleName)},
            {"ruleDescription", core::StringUtil::UrlDecode(alert.ruleDescription)},
            {"rulePoints", PointListText(alert.rulePoints)},
            {"boxPoints", PointListText(alert.boxPoints)},
            {"mediaType", alert.mediaType},
            {"mediaUrl", alert.mediaUrl}};
}

std::optional<Event::Properties> AlertToFittingProperties(const AnalyticsInterface::AnalyticsAlert& alert) {
    if (LeastSize(alert) > mostAlertBytes) {
        return std::nullopt;
    }
    std::optional<Event::Properties> properties = AlertToProperties(alert);
    if (SizeOf(*properties) > mostAlertBytes) {
        properties.reset();
    }
    return properties;
}

}  // namespace kelto::halvek::source
