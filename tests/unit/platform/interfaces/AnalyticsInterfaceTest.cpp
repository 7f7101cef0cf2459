#include "kelto/interfaces/AnalyticsInterface.h"
#include "kelto/msgbus/MsgBusMsg.h"
#include "tests/support/Matchers.h"

namespace kelto::interfaces {

namespace {

using AnalyticsAlert = AnalyticsInterface::AnalyticsAlert;
using msgbus::MsgBusMsg;
using Value = MsgBusMsg::Value;
using Values = MsgBusMsg::Values;

Value Text(const char* text) {
    return {std::string(text)};
}

Value Point(double x, double y) {
    return {Values{Value{x}, Value{y}}};
}

MsgBusMsg Alert() {
    return {.name = "AnalyticsAlert",
            .domain = "com.zentu.analytics",
            .signature = "sssssa(dd)a(dd)ss",
            .size = 0,
            .arguments = {Text("source"), Text("class"), Text("type"), Text("rule%20name"), Text("rule%20text"),
                          Value{Values{Point(0, 0), Point(1, 0.5)}}, Value{Values{}}, Text("jpeg"), Text("url%20")}};
}

TEST(AnalyticsAlert, TakesEachArgumentInItsPlaceAndDecodesNoText) {
    const AnalyticsAlert alert(Alert());
    EXPECT_EQ(alert.source, "source");
    EXPECT_EQ(alert.className, "class");
    EXPECT_EQ(alert.analyticsType, "type");
    EXPECT_EQ(alert.ruleName, "rule%20name");
    EXPECT_EQ(alert.ruleDescription, "rule%20text");
    EXPECT_THAT(alert.rulePoints, ElementsAre(Pair(0, 0), Pair(1, 0.5)));
    EXPECT_THAT(alert.boxPoints, IsEmpty());
    EXPECT_EQ(alert.mediaType, "jpeg");
    EXPECT_EQ(alert.mediaUrl, "url%20");
}

TEST(AnalyticsAlert, RuleAndBoxPointsAreNotMixedUp) {
    MsgBusMsg message = Alert();
    std::swap(message.arguments[5], message.arguments[6]);
    const AnalyticsAlert alert(message);
    EXPECT_THAT(alert.rulePoints, IsEmpty());
    EXPECT_THAT(alert.boxPoints, ElementsAre(Pair(0, 0), Pair(1, 0.5)));
}

TEST(AnalyticsAlert, OtherArgumentsAreRefusedWithBothSignatures) {
    MsgBusMsg message = Alert();
    for (const char* signature : {"", "sssssa(dd)a(dd)s", "sssssa(dd)a(dd)sss", "sssssa(ii)a(dd)ss"}) {
        message.signature = signature;
        EXPECT_THAT([&] { AnalyticsAlert{message}; },
                    FailsWith("Message com.zentu.analytics.AnalyticsAlert has arguments \"" + std::string(signature) +
                              "\" instead of \"sssssa(dd)a(dd)ss\""));
    }
}

}  // namespace

}  // namespace kelto::interfaces
