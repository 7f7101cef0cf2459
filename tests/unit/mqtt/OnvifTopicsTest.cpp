#include "companions/mqtt/OnvifTopics.h"

#include <gmock/gmock.h>

#include <string>
#include <utility>

namespace kelto::halvek::mqtt {

namespace {

const OnvifTopics onvif("site/cam1");

QueuedEvent Event(const std::string& type, companion::ReceivedEvent::Properties properties) {
    QueuedEvent event;
    event.event.type = type;
    event.event.properties = std::move(properties);
    event.time = 1795269909123;
    return event;
}

TEST(OnvifTopicsTest, AnAlarmIsADigitalInputThatTheBrokerKeeps) {
    const auto message =
        onvif.MessageOf(Event("Alarm", {{"alarmBank", "Local"}, {"alarmIndex", "2"}, {"alarmState", "1"}}));
    ASSERT_TRUE(message);
    EXPECT_EQ(message->topic, "site/cam1/onvif-ej/Device/Trigger/DigitalInput/&Local-2");
    EXPECT_EQ(
        message->payload,
        R"({"UtcTime":"2026-11-21T14:05:09.123Z","Source":{"InputToken":"Local-2"},"Data":{"LogicalState":true}})");
    EXPECT_TRUE(message->isRetained);
}

TEST(OnvifTopicsTest, OtherEventsStandUnderANameOfOursAndAreNotKept) {
    const auto topic = [](const QueuedEvent& event) {
        const auto message = onvif.MessageOf(event);
        EXPECT_FALSE(message->isRetained);
        return message->topic;
    };
    EXPECT_EQ(topic(Event("AnalyticsAlert", {})), "site/cam1/onvif-ej/halvek:Alert");
    EXPECT_EQ(topic(Event("Park", {})), "site/cam1/onvif-ej/halvek:Park");
    EXPECT_EQ(topic(Event("Timer", {})), "site/cam1/onvif-ej/halvek:Timer");
    EXPECT_EQ(topic(Event("Front door", {{"eventId", "Front door"}})), "site/cam1/onvif-ej/halvek:Posted/Front%20door");
}

TEST(OnvifTopicsTest, TheirDataAreTheirProperties) {
    EXPECT_EQ(onvif.MessageOf(Event("Park", {{"a", "b\""}}))->payload,
              R"({"UtcTime":"2026-11-21T14:05:09.123Z","Source":{},"Data":{"a":"b\""}})");
}

TEST(OnvifTopicsTest, AStateIsForgottenByAnEmptyMessageThatIsKept) {
    const auto message = onvif.AlarmRemoval({"Local", "2"});
    EXPECT_EQ(message->payload, "");
    EXPECT_TRUE(message->isRetained);
}

TEST(OnvifTopicsTest, ATopicThatWouldBeTooLongIsNone) {
    EXPECT_FALSE(onvif.MessageOf(Event(std::string(600, 'x'), {})));
}

}  // namespace

}  // namespace kelto::halvek::mqtt
