#include "event/TimerEvent.h"
#include "handler/EventHandler.h"
#include "kelto/osa/Exception.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/RecordingHandler.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"

namespace kelto::halvek {

namespace {

class EventHandlerTest : public ::testing::Test {
protected:
    const test::FakeClock clock{"2025-03-05 12:00:00"};  // a Wednesday
    test::LogCapture log;
    test::RecordingHandler handler;
    event::TimerEvent event{Event::Properties{{"eventType", "Timer"}}};
};

TEST_F(EventHandlerTest, WithoutTimesAndDaysEveryEventIsActedUpon) {
    handler.HandleEvent(event);
    handler.Configure({});
    handler.HandleEvent(event);
    EXPECT_EQ(handler.Count(), 2U);
}

TEST_F(EventHandlerTest, ConfiguringLogsTheGroupAndConfiguresTheFilter) {
    handler.Configure({{"Key", "Value"}, {"EnabledTimes", "1300-1400"}, {"EnabledDays", "W"}});
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("Debug halvek: \t** Contents of Ini group we're configuring", "Debug halvek: \t** Key\t\tValue",
                    "Debug halvek: \t** EnabledDays\t\tW", "Debug halvek: \t** EnabledTimes\t\t1300-1400",
                    "Debug halvek: \t** Key\t\tValue", "Information halvek: \tFilterChain: Configured time filter",
                    "Information halvek: \tFilterChain: Configured day filter"));
    handler.HandleEvent(event);
    EXPECT_EQ(handler.Count(), 0U);
}

TEST_F(EventHandlerTest, AFilteredEventIsDroppedWithoutAWord) {
    handler.Configure({{"EnabledDays", "X"}});
    log.Clear();
    handler.HandleEvent(event);
    EXPECT_EQ(handler.Count(), 0U);
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: \tFilterChain: Checking if we are date filtered",
                                         "Debug halvek: \tFilterChain: Today's day is: 3"));
}

TEST_F(EventHandlerTest, TheActionGetsTheVeryEvent) {
    test::RecordingHandler marking([](Event& given) { given.SetProperties({{"seen", "yes"}}); });
    marking.HandleEvent(event);
    EXPECT_EQ(event.GetProperties().count("seen"), 1U);
}

TEST_F(EventHandlerTest, AnUnconfiguredHandlerThrowsBeforeItsFilterIsAsked) {
    handler.Configure({{"EnabledDays", "X"}});
    handler.SetConfigured(false);
    log.Clear();
    EXPECT_THAT([this] { handler.HandleEvent(event); }, FailsWith("EventHandler: not configured"));
    EXPECT_THAT(log.Lines(), IsEmpty());
    EXPECT_EQ(handler.Count(), 0U);
}

TEST_F(EventHandlerTest, WhatTheActionThrowsGoesOnToTheSource) {
    test::RecordingHandler failing([](Event&) { throw osa::Exception("no relay"); });
    EXPECT_THAT([&] { failing.HandleEvent(event); }, FailsWith("no relay"));
    test::RecordingHandler odd([](Event&) { throw 42; });
    EXPECT_THROW(odd.HandleEvent(event), int);
}

TEST_F(EventHandlerTest, EachHandlerHasAFilterOfItsOwn) {
    test::RecordingHandler other;
    other.Configure({{"EnabledDays", "X"}});
    handler.HandleEvent(event);
    other.HandleEvent(event);
    EXPECT_EQ(handler.Count(), 1U);
    EXPECT_EQ(other.Count(), 0U);
}

}  // namespace

}  // namespace kelto::halvek
