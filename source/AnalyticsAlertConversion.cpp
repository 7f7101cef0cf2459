#include "source/AnalyticsAlertConversion.h"

#include "kelto/core/StringUtil.h"

#include <sstream>

namespace kelto::halvek::source {

namespace {

using interfaces::AnalyticsInterface;

std::string PointListText(const std::vector<AnalyticsInterface::AnalyticsAlert::Point>& points) {
    std::ostringstream text;
    const char* separator = "";
    for (const auto& [x, y] : points) {
        text << separator << "(" << x << "," << y << ")";
        separator = "|";
    }
    return text.str();
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

}  // namespace kelto::halvek::source
