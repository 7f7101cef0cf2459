#include "kelto/msgbus/MsgBusMsg.h"
#include "source/AnalyticsAlertConversion.h"
#include "tests/fakes/FailingAllocation.h"
#include "tests/support/Matchers.h"

#include <limits>
#include <new>

namespace kelto::halvek::source {

namespace {

using Alert = interfaces::AnalyticsInterface::AnalyticsAlert;
using msgbus::MsgBusMsg;
using Value = MsgBusMsg::Value;
using Values = MsgBusMsg::Values;

Alert EmptyAlert() {
    const Value text{std::string()};
    const Value points{Values{}};
    return Alert(MsgBusMsg{.name = "AnalyticsAlert",
                           .domain = "com.zentu.analytics",
                           .signature = "sssssa(dd)a(dd)ss",
                           .size = 0,
                           .arguments = {text, text, text, text, text, points, points, text, text}});
}

/** What a list of rule points becomes. */
std::string RulePoints(const std::vector<Alert::Point>& points) {
    Alert alert = EmptyAlert();
    alert.rulePoints = points;
    return AlertToProperties(alert).at("rulePoints");
}

TEST(AnalyticsAlertConversion, HasTenPropertiesEvenOfAnEmptyAlert) {
    EXPECT_THAT(
        AlertToProperties(EmptyAlert()),
        ElementsAre(Pair("analyticsType", ""), Pair("boxPoints", ""), Pair("class", ""),
                    Pair("eventType", "AnalyticsAlert"), Pair("mediaType", ""), Pair("mediaUrl", ""),
                    Pair("ruleDescription", ""), Pair("ruleName", ""), Pair("rulePoints", ""), Pair("source", "")));
}

TEST(AnalyticsAlertConversion, OnlyTheRulesNameAndDescriptionAreDecoded) {
    Alert alert = EmptyAlert();
    for (std::string Alert::*const field : {&Alert::source, &Alert::className, &Alert::analyticsType, &Alert::ruleName,
                                            &Alert::ruleDescription, &Alert::mediaType, &Alert::mediaUrl}) {
        alert.*field = "a%20b+c%zz%C3%A4";
    }
    const Event::Properties properties = AlertToProperties(alert);
    for (const char* key : {"source", "class", "analyticsType", "mediaType", "mediaUrl"}) {
        EXPECT_EQ(properties.at(key), "a%20b+c%zz%C3%A4") << key;
    }
    EXPECT_EQ(properties.at("ruleName"), "a b+c%zz\xC3\xA4");
    EXPECT_EQ(properties.at("ruleDescription"), "a b+c%zz\xC3\xA4");
}

TEST(AnalyticsAlertConversion, PointsStandInBracketsWithABarBetweenThem) {
    EXPECT_EQ(RulePoints({}), "");
    EXPECT_EQ(RulePoints({{0.1, 0.2}}), "(0.1,0.2)");
    EXPECT_EQ(RulePoints({{0.1, 0.2}, {0.5, 0.75}}), "(0.1,0.2)|(0.5,0.75)");
    EXPECT_EQ(RulePoints({{0, 0}, {1, 0.5}, {-1, -0.5}}), "(0,0)|(1,0.5)|(-1,-0.5)");
}

TEST(AnalyticsAlertConversion, BoxPointsAreWrittenTheSameWay) {
    Alert alert = EmptyAlert();
    alert.boxPoints = {{0.1, 0.2}, {0.5, 0.75}};
    EXPECT_EQ(AlertToProperties(alert).at("boxPoints"), "(0.1,0.2)|(0.5,0.75)");
    EXPECT_EQ(AlertToProperties(alert).at("rulePoints"), "");
}

TEST(AnalyticsAlertConversion, NumbersAreInGeneralNotationWithSixSignificantDigits) {
    const struct {
        double number;
        const char* text;
    } cases[] = {
        {0.5, "0.5"},
        {1, "1"},
        {0.333333333, "0.333333"},
        {1234567, "1.23457e+06"},
        {123456, "123456"},
        {999999.4, "999999"},
        {999999.5, "1e+06"},
        {0.0001, "0.0001"},
        {0.00001, "1e-05"},
        {-0.25, "-0.25"},
        {-0.0, "-0"},
        {1e300, "1e+300"},
        {std::numeric_limits<double>::infinity(), "inf"},
    };
    for (const auto& [number, text] : cases) {
        EXPECT_EQ(RulePoints({{number, 0}}), std::string("(") + text + ",0)");
        EXPECT_EQ(RulePoints({{0, number}}), std::string("(0,") + text + ")");
    }
}

size_t SizeOf(const Event::Properties& properties) {
    size_t size = 0;
    for (const auto& [key, value] : properties) {
        size += key.size() + value.size();
    }
    return size;
}

TEST(AnalyticsAlertConversion, FitsUpToSixtyThousandBytesOfKeysAndValues) {
    Alert alert = EmptyAlert();
    const size_t empty = SizeOf(AlertToProperties(alert));
    for (std::string Alert::*const field : {&Alert::source, &Alert::className, &Alert::analyticsType, &Alert::ruleName,
                                            &Alert::ruleDescription, &Alert::mediaType, &Alert::mediaUrl}) {
        alert = EmptyAlert();
        alert.*field = std::string(60000 - empty, 'x');
        const std::optional<Event::Properties> fitting = AlertToFittingProperties(alert);
        ASSERT_TRUE(fitting.has_value());
        EXPECT_EQ(*fitting, AlertToProperties(alert));
        (alert.*field).push_back('x');
        EXPECT_FALSE(AlertToFittingProperties(alert).has_value());
    }
}

TEST(AnalyticsAlertConversion, CountsWhatIsDecodedAndWritten) {
    Alert alert = EmptyAlert();
    for (size_t number = 0; number < 59000; ++number) {
        alert.ruleName += "%20";
    }
    EXPECT_TRUE(AlertToFittingProperties(alert).has_value());
    alert.boxPoints.assign(150, {0.5, 0.5});
    EXPECT_FALSE(AlertToFittingProperties(alert).has_value());
    alert = EmptyAlert();
    alert.rulePoints.assign(1900, {-1.23456e-300, -1.23456e-300});
    EXPECT_TRUE(AlertToFittingProperties(alert).has_value());
    alert.rulePoints.assign(2000, {-1.23456e-300, -1.23456e-300});
    EXPECT_FALSE(AlertToFittingProperties(alert).has_value());
    alert.rulePoints.assign(9900, {0, 0});
    EXPECT_TRUE(AlertToFittingProperties(alert).has_value());
}

TEST(AnalyticsAlertConversion, AnAlertOfMillionsOfPointsDoesNotFit) {
    Alert alert = EmptyAlert();
    alert.rulePoints.assign(3'000'000, {0.123456, 0.123456});
    EXPECT_FALSE(AlertToFittingProperties(alert).has_value());
}

TEST(AnalyticsAlertConversion, WithoutMemoryThereIsAnExceptionAndNeverAPartOfThePoints) {
    const std::vector<Alert::Point> points(100, {0.25, 0.5});
    const std::string whole = RulePoints(points);
    Alert alert = EmptyAlert();
    alert.rulePoints = points;
    bool hasFailed = true;
    for (size_t goodOnes = 0; hasFailed; ++goodOnes) {
        std::string converted = whole;
        try {
            const test::FailingAllocation failing(goodOnes);
            converted = AlertToProperties(alert).at("rulePoints");
        } catch (const std::bad_alloc&) {
        }
        hasFailed = test::FailingAllocation::HasFailed();
        EXPECT_EQ(converted, whole) << "with " << goodOnes << " allocations";
    }
}

}  // namespace

}  // namespace kelto::halvek::source
