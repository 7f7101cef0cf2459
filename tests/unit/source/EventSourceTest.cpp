#include "event/TimerEvent.h"
#include "kelto/osa/Exception.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/ProbeSource.h"
#include "tests/fakes/RecordingHandler.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"
#include "tests/support/WaitUntil.h"

#include <atomic>
#include <future>
#include <thread>

namespace kelto::halvek {

namespace {

constexpr std::chrono::milliseconds longEnoughToHappen(100);

class EventSourceTest : public ::testing::Test {
protected:
    void Fire() {
        event::TimerEvent event(Event::Properties{{"eventType", "Timer"}});
        source.FireEvent(event);
    }

    test::LogCapture log;
    test::Journal journal;
    test::RecordingHandler first{[this](Event&) { journal.Note("first"); }};
    test::RecordingHandler second{[this](Event&) { journal.Note("second"); }};
    test::RecordingHandler third{[this](Event&) { journal.Note("third"); }};
    test::Journal sourceJournal;
    test::ProbeSource source{sourceJournal, "Probe"};
};

TEST_F(EventSourceTest, ConfiguringLogsTheGroupInKeyOrder) {
    source.EventSource::Configure({{"b", "2 %s"}, {"B", "1"}, {"a", ""}});
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: \t** Contents of Ini group we're configuring",
                                         "Debug halvek: \t** Key\t\tValue", "Debug halvek: \t** B\t\t1",
                                         "Debug halvek: \t** a\t\t", "Debug halvek: \t** b\t\t2 %s"));
}

TEST_F(EventSourceTest, ConfiguringWithAnEmptyGroupLogsTheTwoHeadings) {
    source.EventSource::Configure({});
    EXPECT_EQ(log.Lines().size(), 2U);
}

TEST_F(EventSourceTest, AnEventWithoutHandlersIsStampedAndNoted) {
    const test::FakeClock clock("2025-03-05 07:08:09");
    event::TimerEvent event(Event::Properties{{"eventType", "Timer"}});
    source.FireEvent(event);
    EXPECT_EQ(event.GetProperties().at("Timestamp"), "07:08:09");
    EXPECT_EQ(event.GetProperties().at("FormattedTime"), "2025-05-03T07:08:09+00:00");
    EXPECT_THAT(log.Lines(), ElementsAre("Trace halvek: \tEventSource::Firing Event",
                                         "Debug halvek: \tOn FireEvent _handlers list is empty"));
}

TEST_F(EventSourceTest, HandlersGetTheStampedEventInTheOrderOfAttachment) {
    source.AddHandler(&second);
    source.AddHandler(&first);
    log.Clear();
    Fire();
    EXPECT_THAT(journal.Entries(), ElementsAre("second", "first"));
    EXPECT_EQ(first.Events().front().properties.count("Timestamp"), 1U);
    EXPECT_THAT(log.Lines(), ElementsAre("Trace halvek: \tEventSource::Firing Event",
                                         "Trace halvek: \tEventSource::FireEvent Firing Event in the handlers list",
                                         "Trace halvek: \tEventSource::FireEvent Firing Event in the handlers list"));
}

TEST_F(EventSourceTest, AHandlerAttachedTwiceGetsEachEventTwiceInListOrder) {
    source.AddHandler(&first);
    source.AddHandler(&second);
    source.AddHandler(&first);
    Fire();
    EXPECT_THAT(journal.Entries(), ElementsAre("first", "second", "first"));
}

TEST_F(EventSourceTest, AttachingWithAnEventIdIsAttachingForAllEvents) {
    source.AddHandler(&first, "Alarm");
    EXPECT_THAT(log.Lines(), ElementsAre("Trace halvek: Called base class AddHandler(ph,eId)",
                                         "Trace halvek: Called base class AddHandler"));
    Fire();
    EXPECT_EQ(first.Count(), 1U);
}

TEST_F(EventSourceTest, AttachingWithAnEventIdGoesThroughTheSubclassesAddHandler) {
    source.AddHandler(&first, "");
    EXPECT_THAT(sourceJournal.Entries(), ElementsAre("make Probe", "attach to Probe"));
}

TEST_F(EventSourceTest, AnUnconfiguredSourceFiresNothing) {
    source.AddHandler(&first);
    source.SetConfigured(false);
    event::TimerEvent event(Event::Properties{{"eventType", "Timer"}});
    EXPECT_THAT([&] { source.FireEvent(event); }, FailsWith("EventSource: not configured"));
    EXPECT_EQ(first.Count(), 0U);
    EXPECT_EQ(event.GetProperties().count("Timestamp"), 0U);
}

TEST_F(EventSourceTest, AThrowingHandlerCostsTheHandlersAfterItTheEvent) {
    test::RecordingHandler throwing([](Event&) { throw osa::Exception("second of three"); });
    source.AddHandler(&first);
    source.AddHandler(&throwing);
    source.AddHandler(&third);
    EXPECT_THAT([&] { Fire(); }, FailsWith("second of three"));
    EXPECT_EQ(first.Count(), 1U);
    EXPECT_EQ(third.Count(), 0U);
}

TEST_F(EventSourceTest, TheLockIsFreeAfterAHandlerThrew) {
    test::RecordingHandler throwing([](Event&) { throw 42; });
    source.AddHandler(&throwing);
    EXPECT_THROW(Fire(), int);
    std::atomic<bool> attached = false;
    std::thread other([&] {
        source.AddHandler(&first);
        attached = true;
    });
    EXPECT_TRUE(test::WaitUntil([&] { return attached.load(); }));
    other.join();
}

TEST_F(EventSourceTest, AnUnconfiguredHandlerThrowsOutOfTheDelivery) {
    second.SetConfigured(false);
    source.AddHandler(&first);
    source.AddHandler(&second);
    source.AddHandler(&third);
    EXPECT_THAT([&] { Fire(); }, FailsWith("EventHandler: not configured"));
    EXPECT_EQ(first.Count(), 1U);
    EXPECT_EQ(third.Count(), 0U);
}

TEST_F(EventSourceTest, AttachingWaitsForADeliveryInProgress) {
    std::promise<void> delivering;
    std::promise<void> release;
    test::RecordingHandler slow([&](Event&) {
        delivering.set_value();
        release.get_future().wait();
    });
    source.AddHandler(&slow);
    std::thread delivery([this] { Fire(); });
    delivering.get_future().wait();

    std::atomic<bool> attached = false;
    std::thread wiring([&] {
        source.AddHandler(&second);
        attached = true;
    });
    EXPECT_TRUE(test::StaysFalse([&] { return attached.load(); }, longEnoughToHappen));
    release.set_value();
    delivery.join();
    wiring.join();
    EXPECT_TRUE(attached);
    EXPECT_EQ(second.Count(), 0U);
}

TEST_F(EventSourceTest, DeliveriesOfOneSourceNeverOverlap) {
    std::atomic<int> inside = 0;
    std::atomic<int> most = 0;
    test::RecordingHandler counting([&](Event&) {
        most = std::max(most.load(), ++inside);
        std::this_thread::yield();
        --inside;
    });
    source.AddHandler(&counting);
    const auto fireOften = [this] {
        for (int i = 0; i < 200; ++i) {
            Fire();
        }
    };
    std::thread one(fireOften);
    std::thread two(fireOften);
    one.join();
    two.join();
    EXPECT_EQ(counting.Count(), 400U);
    EXPECT_EQ(most, 1);
}

TEST_F(EventSourceTest, TwoSourcesDeliverToOneHandlerAtTheSameTime) {
    std::atomic<int> inside = 0;
    std::atomic<int> met = 0;
    test::RecordingHandler meeting([&](Event&) {
        ++inside;
        met += test::WaitUntil([&] { return inside == 2; }) ? 1 : 0;
    });
    test::ProbeSource other(sourceJournal, "Other");
    source.AddHandler(&meeting);
    other.AddHandler(&meeting);
    std::thread one([this] { Fire(); });
    std::thread two([&] {
        event::TimerEvent event(Event::Properties{{"eventType", "Timer"}});
        other.FireEvent(event);
    });
    one.join();
    two.join();
    EXPECT_EQ(met, 2);
}

TEST_F(EventSourceTest, DestroyingASourceLeavesItsHandlersAlone) {
    {
        test::ProbeSource shortLived(sourceJournal, "Other");
        shortLived.AddHandler(&first);
    }
    source.AddHandler(&first);
    Fire();
    EXPECT_EQ(first.Count(), 1U);
}

}  // namespace

}  // namespace kelto::halvek
