#include "kelto/osa/Exception.h"
#include "kelto/osa/Signal.h"
#include "source/TimerEventSource.h"
#include "tests/fakes/RecordingHandler.h"
#include "tests/support/LetPass.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"
#include "tests/support/WaitUntil.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <stdexcept>

namespace kelto::halvek::source {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char* defaultMessage = "Debug halvek: \tCan't find Timer::Interval.sec, using default!";

/** The N of all records "next tick: N ms". */
std::vector<int> NextTicks(const test::LogCapture& log) {
    std::vector<int> ticks;
    for (const std::string& line : log.Lines()) {
        int milliseconds = 0;
        if (std::sscanf(line.c_str(), "Debug halvek: next tick: %d ms", &milliseconds) == 1) {
            ticks.push_back(milliseconds);
        }
    }
    return ticks;
}

class NeverConfiguredTimer : public TimerEventSource {
public:
    using TimerEventSource::TimerEventSource;
    bool IsConfigured() const override { return false; }
};

class TimerEventSourceTest : public ::testing::Test {
protected:
    void Configure(const std::string& interval) { source.Configure({{"Interval.sec", interval}}); }

    /** Runs the body on this thread until a handler has stopped it after so many ticks. */
    void RunTicks(int count) {
        test::RecordingHandler counting([&, ticks = 0](Event&) mutable {
            if (++ticks == count) {
                source.Stop();
            }
        });
        source.AddHandler(&counting);
        log.Clear();
        source.Run();
    }

    test::LogCapture log;
    test::RecordingHandler handler;
    TimerEventSource source{"Timer"};
};

TEST_F(TimerEventSourceTest, ReadsItsInterval) {
    Configure("7");
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: \t** Contents of Ini group we're configuring",
                                         "Debug halvek: \t** Key\t\tValue", "Debug halvek: \t** Interval.sec\t\t7",
                                         "Information halvek: \tTimer Interval: 7"));
    RunTicks(1);
    EXPECT_TRUE(log.Has("Debug halvek: TICK: 7 sec"));
}

TEST_F(TimerEventSourceTest, WithoutAnIntervalTheDefaultOfTenSecondsCounts) {
    source.Configure({});
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: \t** Contents of Ini group we're configuring",
                                         "Debug halvek: \t** Key\t\tValue", defaultMessage,
                                         "Information halvek: \tTimer Interval: 10"));
    RunTicks(1);
    EXPECT_TRUE(log.Has("Debug halvek: TICK: 10 sec"));
    ASSERT_EQ(NextTicks(log).size(), 1U);
    EXPECT_GT(NextTicks(log).front(), 5000);
    EXPECT_LE(NextTicks(log).front(), 10000);
}

TEST_F(TimerEventSourceTest, AnIntervalThatIsNoIntegerBecomesTheDefault) {
    for (const char* text : {"", "abc", "5s", " 5", "+5", "1.5", "2147483648", "0x10"}) {
        log.Clear();
        Configure(text);
        EXPECT_TRUE(log.Has(defaultMessage)) << text;
        EXPECT_TRUE(log.Has("Information halvek: \tTimer Interval: 10")) << text;
    }
}

TEST_F(TimerEventSourceTest, TheDefaultReplacesAnEarlierInterval) {
    Configure("7");
    source.Configure({});
    RunTicks(1);
    EXPECT_TRUE(log.Has("Debug halvek: TICK: 10 sec"));
}

TEST_F(TimerEventSourceTest, AnIntervalBelowZeroIsPrintedAsItStandsAndSleepsAsLongAsCanBe) {
    Configure("-1");
    EXPECT_TRUE(log.Has("Information halvek: \tTimer Interval: -1"));
    EXPECT_FALSE(log.Has(defaultMessage));
    source.AddHandler(&handler);
    log.Clear();
    source.StartListening();
    EXPECT_TRUE(log.WaitFor("Debug halvek: next tick: 2147483647 ms"));
    EXPECT_TRUE(log.Has("Debug halvek: TICK: -1 sec"));
    EXPECT_EQ(handler.Count(), 1U);
    source.StopListening();
    EXPECT_EQ(handler.Count(), 1U);
}

TEST_F(TimerEventSourceTest, TheLargestIntervalsSaturateTheSleep) {
    Configure("2147483647");
    RunTicks(1);
    EXPECT_THAT(NextTicks(log), ElementsAre(2147483647));
}

TEST_F(TimerEventSourceTest, TheSecondsOfTheSleepAreReckonedInSinglePrecision) {
    Configure("2147483");
    RunTicks(1);
    // A tick takes less than there is between 2147483 s and the next value of single precision. The milliseconds
    // are of double precision: single knows no 2147483000.
    EXPECT_THAT(NextTicks(log), ElementsAre(2147483000));
}

TEST_F(TimerEventSourceTest, AnIntervalOfZeroFiresWithoutEverSleeping) {
    Configure("0");
    EXPECT_TRUE(log.Has("Information halvek: \tTimer Interval: 0"));
    RunTicks(300);
    EXPECT_EQ(log.Count("Debug halvek: TICK: 0 sec"), 300U);
    EXPECT_EQ(log.Text().find("sleep took"), std::string::npos);
    for (const int milliseconds : NextTicks(log)) {
        EXPECT_LE(milliseconds, 0);
    }
}

TEST_F(TimerEventSourceTest, FiresATimerEventOfItsTypeName) {
    source.AddHandler(&handler);
    RunTicks(1);
    const test::ReceivedEvent event = handler.Events().front();
    EXPECT_EQ(event.kind, "{Event: TimerEvent}");
    EXPECT_EQ(event.priority, 0);
    EXPECT_THAT(event.properties, ElementsAre(Pair("FormattedTime", testing::_), Pair("Timestamp", testing::_),
                                              Pair("eventType", "Timer")));
}

TEST_F(TimerEventSourceTest, TheNameGivenToItIsTheEventType) {
    TimerEventSource named("Other");
    named.AddHandler(&handler);
    test::RecordingHandler stopping([&](Event&) { named.Stop(); });
    named.AddHandler(&stopping);
    named.Run();
    EXPECT_EQ(handler.Events().front().properties.at("eventType"), "Other");
    EXPECT_EQ(named.ToString(), "EventSource{Timer}");
}

TEST_F(TimerEventSourceTest, LogsATickStepByStep) {
    RunTicks(1);
    const std::string nextTick = "Debug halvek: next tick: " + std::to_string(NextTicks(log).at(0)) + " ms";
    EXPECT_THAT(log.Lines(),
                ElementsAre("Debug halvek: TICK: 10 sec", "Debug halvek: firing",
                            "Trace halvek: \tEventSource::Firing Event", "Debug halvek: TimerEventSource::Stop()",
                            "Trace halvek: \tEventSource::FireEvent Firing Event in the handlers list",
                            "Debug halvek: fired", nextTick, "Debug halvek: DONE"));
}

TEST_F(TimerEventSourceTest, LogsHowLongItSlept) {
    Configure("1");
    source.AddHandler(&handler);
    source.StartListening();
    EXPECT_TRUE(handler.WaitForCount(2));
    source.StopListening();
    double seconds = 0;
    for (const std::string& line : log.Lines()) {
        std::sscanf(line.c_str(), "Debug halvek: sleep took %lf sec", &seconds);
    }
    EXPECT_GT(seconds, 0.9);
    EXPECT_LT(seconds, 5.0);
}

TEST_F(TimerEventSourceTest, TheTimeThatHandlersTakeShortensTheSleep) {
    test::RecordingHandler slow([](Event&) { test::LetPass(300ms); });
    source.AddHandler(&slow);
    RunTicks(1);
    EXPECT_GT(NextTicks(log).at(0), 5000);
    EXPECT_LE(NextTicks(log).at(0), 9700);
}

TEST_F(TimerEventSourceTest, TicksStandOnePeriodApartFromStartToStart) {
    Configure("1");
    test::RecordingHandler slow([](Event&) { test::LetPass(400ms); });
    source.AddHandler(&handler);
    source.AddHandler(&slow);
    source.StartListening();
    ASSERT_TRUE(handler.WaitForCount(4));
    source.StopListening();
    const std::vector<test::ReceivedEvent> ticks = handler.Events();
    const std::array periods{ticks.at(1).time - ticks.at(0).time, ticks.at(2).time - ticks.at(1).time,
                             ticks.at(3).time - ticks.at(2).time};
    const auto [shortest, longest] = std::ranges::minmax(periods);
    // A tick that a busy machine is late with makes one period longer and the next one shorter; a sleep that is not
    // shortened makes all of them 1.4 s, and one that is shortened too much all of them less than 1 s.
    EXPECT_LT(shortest, 1300ms);
    EXPECT_GT(longest, 990ms);
    EXPECT_LE(NextTicks(log).at(0), 600);
}

TEST_F(TimerEventSourceTest, HandlersSlowerThanThePeriodLeaveNoSleepBetweenTicks) {
    Configure("1");
    test::RecordingHandler slow([](Event&) { test::LetPass(1100ms); });
    source.AddHandler(&slow);
    RunTicks(2);
    ASSERT_EQ(NextTicks(log).size(), 2U);
    EXPECT_LE(NextTicks(log).at(0), -100);
    EXPECT_EQ(log.Text().find("sleep took"), std::string::npos);
}

TEST_F(TimerEventSourceTest, StoppingCutsASleepShortAndReturnsAfterDone) {
    Configure("60");
    source.StartListening();
    ASSERT_TRUE(test::WaitUntil([this] { return NextTicks(log).size() == 1; }));
    log.Clear();
    EXPECT_LT(test::TimeOf([&] { source.StopListening(); }), 10s);
    EXPECT_THAT(log.Lines(),
                ElementsAre("Debug halvek: TimerEventSource::Stop()", "Debug halvek: interrupted by signal 14",
                            "Debug halvek: DONE", "Information halvek: TimerEventSource stopped"));
}

TEST_F(TimerEventSourceTest, StoppingRightAfterStartingNeverLosesTheStop) {
    Configure("60");
    const auto begin = Clock::now();
    for (int round = 0; round < 100; ++round) {
        source.StartListening();
        source.StopListening();
    }
    EXPECT_LT(Clock::now() - begin, 30s);
    EXPECT_EQ(log.Count("Debug halvek: DONE"), 100U);
}

TEST_F(TimerEventSourceTest, ASecondStartIsRefused) {
    source.StartListening();
    EXPECT_TRUE(log.Has("Information halvek: TimerEventSource started"));
    EXPECT_THAT([this] { source.StartListening(); }, FailsWith("TimerEventSource::StartListening already running"));
    source.StopListening();
}

TEST_F(TimerEventSourceTest, AnUnconfiguredTimerIsNotStarted) {
    NeverConfiguredTimer unconfigured("Timer");
    EXPECT_THAT([&] { unconfigured.StartListening(); }, FailsWith("TimerEventSource::StartListening not configured"));
    EXPECT_EQ(unconfigured.GetCurrentThread(), nullptr);
    EXPECT_TRUE(TimerEventSource("Timer").IsConfigured());
}

TEST_F(TimerEventSourceTest, AHandlersFailureIsAnErrorAndTheNextTickComesAtOnce) {
    Configure("60");
    test::RecordingHandler failing([](Event&) { throw osa::Exception("no relay %d", 3); });
    source.AddHandler(&handler);
    source.AddHandler(&failing);
    test::RecordingHandler behind;
    source.AddHandler(&behind);
    source.StartListening();
    EXPECT_TRUE(handler.WaitForCount(20));
    source.StopListening();
    EXPECT_GE(log.Count("Error halvek: no relay 3"), 19U);
    EXPECT_TRUE(NextTicks(log).empty());
    EXPECT_EQ(behind.Count(), 0U);
}

TEST_F(TimerEventSourceTest, AnUnconfiguredHandlerHasItTickOnWithoutSleeping) {
    Configure("60");
    test::RecordingHandler unconfigured;
    unconfigured.SetConfigured(false);
    source.AddHandler(&unconfigured);
    source.StartListening();
    EXPECT_TRUE(log.WaitFor("Error halvek: EventHandler: not configured", 20));
    source.StopListening();
    EXPECT_TRUE(NextTicks(log).empty());
}

TEST_F(TimerEventSourceTest, ASignalFromAHandlerEndsTheLoop) {
    test::RecordingHandler interrupting([](Event&) { throw osa::Signal(SIGALRM); });
    source.AddHandler(&interrupting);
    source.Run();
    EXPECT_THAT(log.Lines(), IsSupersetOf({"Debug halvek: interrupted by signal 14", "Debug halvek: DONE"}));
    EXPECT_EQ(interrupting.Count(), 1U);
}

TEST_F(TimerEventSourceTest, AStandardExceptionEndsTheThreadOnly) {
    test::RecordingHandler failing([](Event&) { throw std::runtime_error("out of luck"); });
    source.AddHandler(&failing);
    source.StartListening();
    EXPECT_TRUE(log.WaitFor("Error kelto.osa: Thread TimerEventSource ended by an exception: out of luck"));
    EXPECT_FALSE(log.Has("Debug halvek: DONE"));
    EXPECT_THROW(source.StartListening(), osa::Exception);
    source.StopListening();
    EXPECT_EQ(failing.Count(), 1U);
}

}  // namespace

}  // namespace kelto::halvek::source
