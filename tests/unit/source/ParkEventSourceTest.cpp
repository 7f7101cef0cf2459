#include "kelto/osa/Exception.h"
#include "source/ParkEventSource.h"
#include "tests/fakes/IntendedWaits.h"
#include "tests/support/LetPass.h"
#include "tests/support/Matchers.h"
#include "tests/support/ProcessState.h"
#include "tests/support/WaitUntil.h"
#include "tests/unit/source/CameraSourceFixture.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

namespace kelto::halvek::source {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char* defaultMessage = "Debug ParkEventSource: \tCan't find Park::DwellTime.sec, using default!";
constexpr Clock::duration late = 3s;  // that a busy machine may be
constexpr const char* queryMessage = "Warning ParkEventSource: Failed when querying current idle state.";

class ParkEventSourceTest : public CameraSourceFixture<ParkEventSource> {
protected:
    ParkEventSourceTest() : CameraSourceFixture("Park") {}

    void Configure(const std::string& dwell) {
        source->Configure({{"DwellTime.sec", dwell}});
        log.Clear();
    }

    /** Tells an idle state; gives the time at which it was told. */
    Clock::time_point Notify(int32_t state) {
        const Clock::time_point now = Clock::now();
        providers->idleChange.Notify(state);
        return now;
    }

    /** What was logged under the source's own name. */
    std::vector<std::string> OwnLines() const {
        std::vector<std::string> lines = log.Lines();
        std::erase_if(lines,
                      [](const std::string& line) { return line.find(" ParkEventSource: ") == std::string::npos; });
        return lines;
    }
};

TEST_F(ParkEventSourceTest, ReadsItsDwellTimeAndAsksForTheIdleState) {
    log.Clear();
    source->Configure({{"DwellTime.sec", "7"}});
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: \t** Contents of Ini group we're configuring",
                                         "Debug halvek: \t** Key\t\tValue", "Debug halvek: \t** DwellTime.sec\t\t7",
                                         "Information ParkEventSource: \tPark DwellTime: 7",
                                         "Debug ParkEventSource: ParkEventSource::HandleIdleStateChange 1"));
    EXPECT_THAT(providers.Calls(), ElementsAre("MotionState.GetIdleState()"));
}

TEST_F(ParkEventSourceTest, WithoutADwellTimeTheDefaultOfTenSecondsCounts) {
    log.Clear();
    source->Configure({});
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: \t** Contents of Ini group we're configuring",
                                         "Debug halvek: \t** Key\t\tValue", defaultMessage,
                                         "Information ParkEventSource: \tPark DwellTime: 10",
                                         "Debug ParkEventSource: ParkEventSource::HandleIdleStateChange 1"));
}

TEST_F(ParkEventSourceTest, ADwellTimeThatIsNoIntegerBecomesTheDefault) {
    for (const char* text : {"", "abc", "5s", " 5", "+5", "1.5", "2147483648"}) {
        Configure("3");
        source->Configure({{"DwellTime.sec", text}});
        EXPECT_TRUE(log.Has(defaultMessage)) << text;
        EXPECT_TRUE(log.Has("Information ParkEventSource: \tPark DwellTime: 10")) << text;
    }
}

TEST_F(ParkEventSourceTest, AQueryThatFailsInWhateverWayIsAWarningAndLeavesItDisarmed) {
    const std::vector<std::function<void()>> failures = {
        [] { throw osa::Exception("no answer"); }, [] { throw std::runtime_error("no memory"); }, [] { throw 42; }};
    providers->idleState = 0;
    for (const auto& failure : failures) {
        providers->onCall = [&](const std::string&) { failure(); };
        log.Clear();
        EXPECT_NO_THROW(source->Configure({{"DwellTime.sec", "0"}}));
        EXPECT_THAT(OwnLines(), ElementsAre("Information ParkEventSource: \tPark DwellTime: 0", queryMessage));
    }
    source->StartListening();
    test::LetPass(1500ms);
    EXPECT_EQ(handler.Count(), 0U);
    Notify(0);
    EXPECT_TRUE(handler.WaitForCount(1)) << "a report arms it";
}

TEST_F(ParkEventSourceTest, ACameraAtRestStartsItsDwellAtTheConfiguration) {
    providers->idleState = 0;
    Configure("1");
    source->StartListening();
    EXPECT_TRUE(handler.WaitForCount(1));
}

TEST_F(ParkEventSourceTest, IsSubscribedFromItsConstructionUntilItsDestruction) {
    EXPECT_EQ(providers->idleChange.Count(), 1U);
    source->StartListening();
    source->StopListening();
    EXPECT_EQ(providers->idleChange.Count(), 1U);
    source->StartListening();
    EXPECT_EQ(providers->idleChange.CountAdded(), 1U);
    source.reset();
    EXPECT_EQ(providers->idleChange.Count(), 0U);
    EXPECT_EQ(providers.CountDestroyed("MotionState"), 0);
}

TEST_F(ParkEventSourceTest, EveryReportedStateIsLogged) {
    log.Clear();
    Notify(0);
    Notify(1);
    Notify(-5);
    EXPECT_THAT(log.Lines(), ElementsAre("Debug ParkEventSource: ParkEventSource::HandleIdleStateChange 0",
                                         "Debug ParkEventSource: ParkEventSource::HandleIdleStateChange 1",
                                         "Debug ParkEventSource: ParkEventSource::HandleIdleStateChange -5"));
}

TEST_F(ParkEventSourceTest, FiresAParkEventWithItsTypeName) {
    Configure("0");
    Notify(0);
    source->StartListening();
    ASSERT_TRUE(handler.WaitForCount(1));
    const test::ReceivedEvent event = handler.Events().front();
    EXPECT_EQ(event.kind, "{Event: ParkEvent}");
    EXPECT_EQ(event.priority, 0);
    EXPECT_THAT(event.properties,
                UnorderedElementsAre(Pair("eventType", "Park"), Key("Timestamp"), Key("FormattedTime")));
    EXPECT_TRUE(log.WaitFor("Debug ParkEventSource: fired"));
    EXPECT_THAT(OwnLines(), UnorderedElementsAre("Debug ParkEventSource: ParkEventSource::HandleIdleStateChange 0",
                                                 "Debug ParkEventSource: ParkEventSource::Run",
                                                 "Information ParkEventSource: ParkEventSource started",
                                                 "Debug ParkEventSource: fired"));
}

TEST_F(ParkEventSourceTest, ADwellOfTenFiresExactlyOnceTenToElevenSecondsLater) {
    Configure("10");
    source->StartListening();
    // Between two ticks: half a second to spare either way.
    test::LetPass(500ms);
    const Clock::time_point told = Notify(0);
    ASSERT_TRUE(handler.WaitForCount(1));
    EXPECT_THAT(handler.Events().front().time - told, AllOf(Ge(10s - 10ms), Lt(11s + late)));
    test::LetPass(12s);
    EXPECT_EQ(handler.Count(), 1U) << "fired again without a new report";
    Configure("0");
    Notify(0);
    EXPECT_TRUE(handler.WaitForCount(2));
}

TEST_F(ParkEventSourceTest, AMovementAfterFiveSecondsEndsTheDwellWithoutAnEvent) {
    Configure("10");
    source->StartListening();
    Notify(0);
    test::LetPass(5s);
    Notify(1);
    test::LetPass(8s);
    EXPECT_EQ(handler.Count(), 0U);
}

TEST_F(ParkEventSourceTest, AnotherReportOfRestAfterEightSecondsCountsAnew) {
    // Unconfigured, its dwell time is the ten seconds that it is made with.
    source->StartListening();
    Notify(0);
    test::LetPass(8500ms);
    const Clock::time_point told = Notify(0);
    ASSERT_TRUE(handler.WaitForCount(1));
    EXPECT_THAT(handler.Events().front().time - told, AllOf(Ge(10s - 10ms), Lt(11s + late)));
}

TEST_F(ParkEventSourceTest, TheDwellCountsFromTheReportHoweverLongTheHeadMovedBefore) {
    Configure("2");
    source->StartListening();
    test::LetPass(4500ms);
    EXPECT_EQ(handler.Count(), 0U);
    const Clock::time_point told = Notify(0);
    ASSERT_TRUE(handler.WaitForCount(1));
    EXPECT_THAT(handler.Events().front().time - told, AllOf(Ge(2s - 10ms), Lt(3s + late)));
}

TEST_F(ParkEventSourceTest, ADwellEndsWithTheTickAtWhichItsSecondsAreFull) {
    for (const int seconds : {0, 1}) {
        Configure(std::to_string(seconds));
        Clock::duration shortest = Clock::duration::max();
        for (int round = 0; round < 3; ++round) {
            const size_t before = handler.Count();
            Notify(0);
            const Clock::time_point begin = Clock::now();
            source->StartListening();
            ASSERT_TRUE(handler.WaitForCount(before + 1));
            shortest = std::min(shortest, handler.Events().back().time - begin);
            source->StopListening();
        }
        // A busy machine may be late with one of them; a tick too many would make all of them a second late.
        EXPECT_THAT(shortest, AllOf(Ge(seconds * 1s - 10ms), Lt(seconds * 1s + 700ms)));
    }
}

TEST_F(ParkEventSourceTest, ATickIsOneSecondAndNothingElse) {
    Configure("10");
    test::ExpectWaits({1s, 1s, 1s}, [this](const test::IntendedWaits& waits) {
        source->StartListening();
        EXPECT_TRUE(waits.WaitForCount(3));
        source->StopListening();
    });
}

TEST_F(ParkEventSourceTest, ADwellOfZeroFiresWithinASecondOfTheReport) {
    Configure("0");
    source->StartListening();
    Clock::duration shortest = Clock::duration::max();
    for (size_t round = 1; round <= 3; ++round) {
        const Clock::time_point told = Notify(0);
        ASSERT_TRUE(handler.WaitForCount(round));
        shortest = std::min(shortest, handler.Events().back().time - told);
    }
    // A busy machine may be late with one of them, a dwell of one would be with all.
    EXPECT_LT(shortest, 1500ms);
}

TEST_F(ParkEventSourceTest, ANegativeDwellNeverFires) {
    source->Configure({{"DwellTime.sec", "-1"}});
    EXPECT_TRUE(log.Has("Information ParkEventSource: \tPark DwellTime: -1"));
    EXPECT_FALSE(log.Has(defaultMessage));
    Notify(0);
    source->StartListening();
    test::LetPass(3s);
    EXPECT_EQ(handler.Count(), 0U);
}

TEST_F(ParkEventSourceTest, EveryStateButZeroEndsTheDwell) {
    Configure("0");
    for (const int32_t state : {1, 2, -1, INT32_MAX, INT32_MIN}) {
        Notify(0);
        Notify(state);
        source->StartListening();
        test::LetPass(300ms);
        source->StopListening();
        EXPECT_EQ(handler.Count(), 0U) << "state " << state;
    }
}

TEST_F(ParkEventSourceTest, OneArmingFiresOnce) {
    Configure("0");
    source->StartListening();
    Notify(0);
    ASSERT_TRUE(handler.WaitForCount(1));
    test::LetPass(2500ms);
    EXPECT_EQ(handler.Count(), 1U);
}

TEST_F(ParkEventSourceTest, StoppingCutsTheSleepShort) {
    Configure("10");
    source->StartListening();
    ASSERT_TRUE(log.WaitFor("Information ParkEventSource: ParkEventSource started"));
    // Into the sleep: what follows the test of the counter.
    test::LetPass(100ms);
    log.Clear();
    EXPECT_LT(test::TimeOf([&] { source->StopListening(); }), 500ms);
    EXPECT_THAT(
        OwnLines(),
        ElementsAre("Debug ParkEventSource: ParkEventSource::Stop()", "Debug ParkEventSource: interrupted by signal 14",
                    "Debug ParkEventSource: DONE", "Information ParkEventSource: ParkEventSource stopped"));
    EXPECT_EQ(source->GetCurrentThread(), nullptr);
}

TEST_F(ParkEventSourceTest, AStopRightAfterTheStartIsNeverTooEarly) {
    Configure("10");
    for (int round = 0; round < 100; ++round) {
        source->StartListening();
        ASSERT_LT(test::TimeOf([&] { source->StopListening(); }), 500ms) << "round " << round;
    }
}

TEST_F(ParkEventSourceTest, StartedTwiceItHasTwoThreadsAndAStopEndsBoth) {
    const size_t before = test::CountThreads();
    source->StartListening();
    source->StartListening();
    EXPECT_EQ(log.Count("Information ParkEventSource: ParkEventSource started"), 2U);
    EXPECT_EQ(test::CountThreads(), before + 2);
    source->StopListening();
    EXPECT_EQ(log.Count("Debug ParkEventSource: DONE"), 2U);
    EXPECT_TRUE(test::WaitUntil([&] { return test::CountThreads() == before; }));
}

TEST_F(ParkEventSourceTest, StartedAgainAfterItsLoopHasEndedItIsStoppedAtOnce) {
    test::RecordingHandler failing([](Event&) { throw osa::Exception("cannot act"); });
    source->AddHandler(&failing);
    Configure("0");
    Notify(0);
    source->StartListening();
    ASSERT_TRUE(log.WaitFor("Debug ParkEventSource: DONE"));
    source->StartListening();
    EXPECT_LT(test::TimeOf([&] { source->StopListening(); }), 500ms);
    EXPECT_EQ(log.Count("Debug ParkEventSource: DONE"), 2U);
}

TEST_F(ParkEventSourceTest, StaysArmedOverAStop) {
    Configure("1");
    source->StartListening();
    source->StopListening();
    Notify(0);
    EXPECT_EQ(handler.Count(), 0U);
    source->StartListening();
    EXPECT_TRUE(handler.WaitForCount(1));
}

TEST_F(ParkEventSourceTest, HandlersRunOnItsThreadAndNotOnTheProviders) {
    std::thread::id ran;
    test::RecordingHandler noting([&](Event&) { ran = std::this_thread::get_id(); });
    source->AddHandler(&noting);
    Configure("0");
    source->StartListening();
    std::thread::id told;
    std::thread([&] {
        told = std::this_thread::get_id();
        Notify(0);
    }).join();
    ASSERT_TRUE(noting.WaitForCount(1));
    source->StopListening();
    EXPECT_NE(ran, told);
    EXPECT_NE(ran, std::this_thread::get_id());
}

TEST_F(ParkEventSourceTest, AnExceptionOfAHandlerEndsTheSourceForGood) {
    test::RecordingHandler throwing([](Event&) { throw osa::Exception("100%% broken %s", "handler"); });
    source->AddHandler(&throwing);
    Configure("0");
    source->StartListening();
    Notify(0);
    ASSERT_TRUE(log.WaitFor("Debug ParkEventSource: DONE"));
    EXPECT_TRUE(log.Has("Error ParkEventSource: 100% broken handler"));
    EXPECT_FALSE(log.Has("Debug ParkEventSource: fired"));
    Notify(0);
    test::LetPass(1500ms);
    EXPECT_EQ(handler.Count(), 1U);
    source->StopListening();
}

TEST_F(ParkEventSourceTest, AHandlerThatIsNotConfiguredEndsTheSourceForGood) {
    handler.SetConfigured(false);
    Configure("0");
    source->StartListening();
    Notify(0);
    ASSERT_TRUE(log.WaitFor("Debug ParkEventSource: DONE"));
    Notify(0);
    test::LetPass(1500ms);
    EXPECT_EQ(log.Count("Error ParkEventSource: EventHandler: not configured"), 1U);
    EXPECT_EQ(handler.Count(), 0U);
}

TEST_F(ParkEventSourceTest, AnExceptionThatIsNotThePlatformsEndsTheThreadButNotTheProcess) {
    test::RecordingHandler throwing([](Event&) { throw std::runtime_error("not the platform's"); });
    source->AddHandler(&throwing);
    Configure("0");
    source->StartListening();
    Notify(0);
    EXPECT_TRUE(log.WaitFor("Error kelto.osa: Thread ParkEventSource ended by an exception: not the platform's"));
    Notify(0);
    test::LetPass(1500ms);
    EXPECT_EQ(handler.Count(), 1U);
    EXPECT_LT(test::TimeOf([&] { source->StopListening(); }), 500ms);
}

TEST_F(ParkEventSourceTest, DestroyingItStopsIt) {
    Configure("10");
    source->StartListening();
    log.Clear();
    source.reset();
    EXPECT_TRUE(log.Has("Information ParkEventSource: ParkEventSource stopped"));
    EXPECT_TRUE(test::WaitUntil([] { return !test::HasThread("ParkEventSource"); }));
}

TEST_F(ParkEventSourceTest, ReportsMayComeFromManyThreadsWhileItTicksAndIsConfigured) {
    Configure("0");
    source->StartListening();
    std::atomic<bool> going = true;
    std::vector<std::jthread> threads;
    for (int32_t state = 0; state < 3; ++state) {
        threads.emplace_back([this, state, &going] {
            while (going) {
                Notify(state);
            }
        });
    }
    for (int round = 0; round < 200; ++round) {
        source->Configure({{"DwellTime.sec", "0"}});
    }
    going = false;
    threads.clear();
    Notify(0);
    EXPECT_TRUE(handler.WaitForCount(1));
}

}  // namespace

}  // namespace kelto::halvek::source
