#include "event/AlarmEvent.h"
#include "event/AnalyticsEvent.h"
#include "event/Event.h"
#include "event/MotionEvent.h"
#include "event/MsgBusEvent.h"
#include "event/ParkEvent.h"
#include "event/SystemEvent.h"
#include "event/TimerEvent.h"
#include "tests/fakes/FakeClock.h"
#include "tests/support/Matchers.h"

#include <array>
#include <ctime>
#include <utility>

namespace kelto::halvek {

namespace {

TEST(Event, WithoutPropertiesHasNoTypeUntilItIsGivenOne) {
    const Event event(Event::Properties{});
    EXPECT_FALSE(event.HasProperties());
    EXPECT_THAT([&] { event.GetEventType(); }, FailsWith("Missing eventType"));
}

TEST(Event, StampingAnEmptyEventLeavesExactlyTheTwoStamps) {
    const test::FakeClock clock("2025-03-05 07:08:09");
    Event event(Event::Properties{});
    event.StampTime();
    EXPECT_TRUE(event.HasProperties());
    EXPECT_THAT(event.GetProperties(),
                ElementsAre(Pair("FormattedTime", "2025-05-03T07:08:09+00:00"), Pair("Timestamp", "07:08:09")));
}

TEST(Event, FormattedTimePutsTheDayBeforeTheMonth) {
    const test::FakeClock clock("2024-12-31 23:59:59");
    Event event(Event::Properties{});
    event.StampTime();
    EXPECT_EQ(event.GetProperties().at("FormattedTime"), "2024-31-12T23:59:59+00:00");
}

TEST(Event, StampsAreLocalTimeWithALiteralOffset) {
    const test::FakeClock clock("2025-07-01 12:00:00", "CET-1CEST");
    Event event(Event::Properties{});
    event.StampTime();
    EXPECT_EQ(event.GetProperties().at("FormattedTime"), "2025-01-07T12:00:00+00:00");
    EXPECT_EQ(event.GetProperties().at("Timestamp"), "12:00:00");
}

TEST(Event, StampingFollowsTheTimeZoneOfTheMoment) {
    test::FakeClock clock("2025-07-01 12:00:00", "UTC");
    Event event(Event::Properties{});
    setenv("TZ", "XXX-5", 1);
    event.StampTime();
    EXPECT_EQ(event.GetProperties().at("Timestamp"), "17:00:00");
}

TEST(Event, StampingOverwritesStampsThatWereThere) {
    test::FakeClock clock("2025-03-05 07:08:09");
    Event event({{"Timestamp", "never"}, {"FormattedTime", "never"}});
    event.StampTime();
    clock.Set("2025-03-05 07:08:10");
    event.StampTime();
    EXPECT_THAT(event.GetProperties(),
                ElementsAre(Pair("FormattedTime", "2025-05-03T07:08:10+00:00"), Pair("Timestamp", "07:08:10")));
}

TEST(Event, CopiesItsPropertiesInAndReplacesThemWhole) {
    Event::Properties properties{{"eventType", "A"}, {"x", "1"}};
    Event event(properties);
    properties["x"] = "2";
    EXPECT_EQ(event.GetProperties().at("x"), "1");
    event.SetProperties({{"y", "3"}});
    EXPECT_THAT(event.GetProperties(), ElementsAre(Pair("y", "3")));
    event.SetProperties(event.GetProperties());
    EXPECT_THAT(event.GetProperties(), ElementsAre(Pair("y", "3")));
}

TEST(Event, TakesPropertiesOverThatAreHandedOver) {
    Event::Properties properties{{"eventType", "A"}, {"x", std::string(100, 'x')}};
    const char* const text = properties.at("x").data();
    const event::MotionEvent event(std::move(properties));
    EXPECT_EQ(event.GetProperties().at("x").data(), text);
    EXPECT_EQ(event.GetPriority(), 0);
}

TEST(Event, StampsAreWhatStrftimeWouldWrite) {
    for (const char* const moment : {"1970-01-01 00:00:00", "2000-02-29 23:59:59", "2026-11-09 09:05:07",
                                     "2038-01-19 03:14:08", "9999-12-31 10:10:10"}) {
        const test::FakeClock clock(moment, "XXX-5:45");
        const time_t now = time(nullptr);
        tm local{};
        localtime_r(&now, &local);
        std::array<char, 32> timestamp{};
        std::array<char, 32> formattedTime{};
        strftime(timestamp.data(), timestamp.size(), "%X", &local);
        strftime(formattedTime.data(), formattedTime.size(), "%Y-%d-%mT%H:%M:%S+00:00", &local);
        Event event(Event::Properties{});
        event.StampTime();
        EXPECT_EQ(event.GetProperties().at("Timestamp"), timestamp.data());
        EXPECT_EQ(event.GetProperties().at("FormattedTime"), formattedTime.data());
    }
}

TEST(Event, NamesItsType) {
    const Event event(Event::Properties{{"eventType", "Alarm"}});
    EXPECT_EQ(event.GetEventType(), "Alarm");
}

TEST(Event, KeepsThePriorityThatItIsGiven) {
    EXPECT_EQ(Event(Event::Properties{}, -5).GetPriority(), -5);
    EXPECT_EQ(Event(Event::Properties{}, 7).GetPriority(), 7);
}

struct Kind {
    std::string text;
    int32_t priority;
};

bool operator==(const Kind& left, const Kind& right) {
    return left.text == right.text && left.priority == right.priority;
}

Kind KindOf(const Event& event) {
    return {event.ToString(), event.GetPriority()};
}

TEST(Event, EachKindHasItsNameAndOnlyTheAlarmHasPriorityOne) {
    const Event::Properties none;
    EXPECT_EQ(KindOf(Event(none)), (Kind{"{Event: generic}", 0}));
    EXPECT_EQ(KindOf(event::TimerEvent(none)), (Kind{"{Event: TimerEvent}", 0}));
    EXPECT_EQ(KindOf(event::MotionEvent(none)), (Kind{"{Event: MotionEvent}", 0}));
    EXPECT_EQ(KindOf(event::AlarmEvent(none)), (Kind{"{Event: AlarmEvent}", 1}));
    EXPECT_EQ(KindOf(event::ParkEvent(none)), (Kind{"{Event: ParkEvent}", 0}));
    EXPECT_EQ(KindOf(event::MsgBusEvent(none)), (Kind{"{Event: MsgBusEvent}", 0}));
    EXPECT_EQ(KindOf(event::AnalyticsEvent(none)), (Kind{"{Event: AnalyticsEvent}", 0}));
    EXPECT_EQ(KindOf(event::SystemEvent(none)), (Kind{"{Event: SystemEvent}", 0}));
}

}  // namespace

}  // namespace kelto::halvek
