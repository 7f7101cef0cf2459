#include "kelto/interfaces/AnalyticsInterface.h"

#include "kelto/interfaces/ProviderSignal.h"
#include "kelto/msgbus/MsgBusMsg.h"

namespace kelto::interfaces {

namespace {

using Values = msgbus::MsgBusMsg::Values;

std::vector<AnalyticsInterface::AnalyticsAlert::Point> DecodePoints(const msgbus::MsgBusMsg::Value& value) {
    std::vector<AnalyticsInterface::AnalyticsAlert::Point> points;
    for (const msgbus::MsgBusMsg::Value& point : std::get<Values>(value.content)) {
        const auto& members = std::get<Values>(point.content);
        points.emplace_back(std::get<double>(members[0].content), std::get<double>(members[1].content));
    }
    return points;
}

const std::string& Text(const Values& arguments, size_t number) {
    return std::get<std::string>(arguments[number].content);
}

}  // namespace

AnalyticsInterface::AnalyticsAlert::AnalyticsAlert(const msgbus::MsgBusMsg& message) {
    CheckSignature(message, "sssssa(dd)a(dd)ss");
    const Values& arguments = message.arguments;
    source = Text(arguments, 0);
    className = Text(arguments, 1);
    analyticsType = Text(arguments, 2);
    ruleName = Text(arguments, 3);
    ruleDescription = Text(arguments, 4);
    rulePoints = DecodePoints(arguments[5]);
    boxPoints = DecodePoints(arguments[6]);
    mediaType = Text(arguments, 7);
    mediaUrl = Text(arguments, 8);
}

}  // namespace kelto::interfaces
