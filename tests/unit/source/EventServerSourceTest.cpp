#include "event/TimerEvent.h"
#include "kelto/osa/Exception.h"
#include "kelto/osa/Signal.h"
#include "tests/support/Matchers.h"
#include "tests/support/WaitUntil.h"
#include "tests/unit/source/EventServerSourceFixture.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <string>
#include <thread>

namespace kelto::halvek::source {

namespace {

using namespace std::chrono_literals;

class NeverConfiguredServer : public EventServerSource {
public:
    bool IsConfigured() const override { return false; }
};

TEST_F(EventServerSourceTest, LogsAnEventStepByStep) {
    test::RecordingHandler stopping([this](Event&) { source.Stop(); });
    source.AddHandler(&stopping, "Alarm");
    log.Clear();
    fifo.Write("[Alarm]\nlevel=3\n.\n");
    source.Run();
    EXPECT_THAT(log.Lines(), ElementsAre("Information halvek: Opening FIFO: " + path, "Trace halvek: Select returned",
                                         "Trace halvek: Got line: [Alarm]", "Debug halvek: \tEvent type: Alarm",
                                         "Trace halvek: Got line: level=3", "Trace halvek: Got line: .",
                                         "Information halvek: EventServerSource: Received event: Alarm",
                                         "Debug halvek: EventServerSource: Firing event through base class",
                                         "Trace halvek: \tEventSource::Firing Event",
                                         "Trace halvek: \tEventSource::FireEvent Firing Event in the handlers list",
                                         "Debug halvek: EventServerSource: Event has eventID of: Alarm",
                                         "Information halvek: EventServerSource: Event Alarm is being fired",
                                         "Debug halvek: EventServerSource::Stop()", "Debug halvek: DONE",
                                         "Information halvek: Exiting eventserversource run loop."));
}

TEST_F(EventServerSourceTest, HandlersWithoutIdComeFirstAndThenThoseOfTheIdInTheOrderOfAttachment) {
    std::string order;
    test::RecordingHandler idOne([&](Event&) { order += "1"; });
    test::RecordingHandler idTwo([&](Event&) { order += "2"; });
    test::RecordingHandler other([&](Event&) { order += "x"; });
    test::RecordingHandler base([&](Event&) { order += "b"; });
    source.AddHandler(&idTwo, "Alarm");
    source.AddHandler(&idOne, "Alarm");
    source.AddHandler(&other, "alarm");
    source.AddHandler(&base);
    EventsOf("[Alarm]\n.\n");
    source.StopListening();
    EXPECT_EQ(order, "b21b");
}

TEST_F(EventServerSourceTest, AttachingUnderAnIdIsLogged) {
    source.AddHandler(&handler, "Alarm");
    EXPECT_THAT(log.Lines(),
                ElementsAre("Debug halvek: \t\tEventServerSource::AddHandler: Adding handler to event: Alarm"));
}

TEST_F(EventServerSourceTest, AHandlerAttachedBothWaysRunsTwice) {
    source.AddHandler(&handler, "A");
    EXPECT_EQ(EventsOf("[A]\n.\n"), Events({Made("A"), Made("A")}));
}

TEST_F(EventServerSourceTest, AHandlerAttachedTwiceUnderAnIdRunsTwice) {
    test::RecordingHandler twice;
    source.AddHandler(&twice, "2");
    source.AddHandler(&twice, "2");
    EventsOf("[MotionDetection]\nregion=2\n.\n");
    EXPECT_EQ(twice.Count(), 2U);
}

TEST_F(EventServerSourceTest, FiringAnEventWithoutPropertiesIsAnError) {
    event::TimerEvent event(Event::Properties{});
    EXPECT_THAT([&] { source.FireEvent(event); }, FailsWith("EventServerSource: server improperly used"));
    EXPECT_EQ(handler.Count(), 0U);
}

TEST_F(EventServerSourceTest, FiringAnEventWithoutAnIdReachesTheHandlersWithoutIdOnly) {
    test::RecordingHandler byEmptyId;
    source.AddHandler(&byEmptyId, "");
    event::TimerEvent event(Event::Properties{{"eventType", "A"}});
    source.FireEvent(event);
    EXPECT_EQ(handler.Count(), 1U);
    EXPECT_EQ(byEmptyId.Count(), 0U);
    EXPECT_EQ(event.GetProperties().count("eventId"), 0U);
    EXPECT_TRUE(log.Has("Debug halvek: EventServerSource: Event has eventID of: "));
}

TEST_F(EventServerSourceTest, AnUnconfiguredServerNeitherStartsNorFires) {
    NeverConfiguredServer unconfigured;
    event::TimerEvent event(Event::Properties{{"eventType", "A"}});
    EXPECT_THAT([&] { unconfigured.FireEvent(event); }, FailsWith("EventServerSource: not configured"));
    EXPECT_THAT([&] { unconfigured.StartListening(); }, FailsWith("EventServerSource::StartListening not configured"));
    EXPECT_TRUE(source.IsConfigured());
}

TEST_F(EventServerSourceTest, AHandlersFailureIsAnErrorAndTheServerGoesOn) {
    test::RecordingHandler failing([](Event& event) {
        if (event.GetEventType() == "A") {
            throw osa::Exception("no relay, 100%% gone: %s", "%s");
        }
    });
    test::RecordingHandler behind;
    source.AddHandler(&failing);
    source.AddHandler(&behind);
    source.AddHandler(&behind, "A");
    EXPECT_EQ(EventsOf("[A]\n.\n[B]\n.\n"), Events({Made("A"), Made("B")}));
    EXPECT_EQ(log.Count("Error halvek: no relay, 100% gone: %s"), 1U);
    EXPECT_TRUE(behind.WaitForCount(2));
    source.StopListening();
    EXPECT_EQ(behind.Events().front().properties.at("eventType"), "B");
}

TEST_F(EventServerSourceTest, AnUnconfiguredHandlerCostsTheOthersTheEventAndTheServerGoesOn) {
    test::RecordingHandler unconfigured;
    test::RecordingHandler behind;
    unconfigured.SetConfigured(false);
    source.AddHandler(&unconfigured, "A");
    source.AddHandler(&behind, "A");
    EXPECT_EQ(EventsOf("[A]\n.\n[A]\n.\n"), Events({Made("A"), Made("A")}));
    EXPECT_EQ(log.Count("Error halvek: EventHandler: not configured"), 2U);
    EXPECT_EQ(behind.Count(), 0U);
}

TEST_F(EventServerSourceTest, ASignalFromAHandlerEndsTheLoop) {
    test::RecordingHandler interrupting([](Event&) { throw osa::Signal(SIGALRM); });
    source.AddHandler(&interrupting);
    fifo.Write("[A]\n.\n");
    source.Run();
    EXPECT_THAT(log.Lines(), IsSupersetOf({"Debug halvek: interrupted by signal 14", "Debug halvek: DONE"}));
}

TEST_F(EventServerSourceTest, AttachingUnderAnIdWaitsForADeliveryInProgress) {
    std::promise<void> delivering;
    std::promise<void> release;
    test::RecordingHandler slow([&](Event&) {
        delivering.set_value();
        release.get_future().wait();
    });
    source.AddHandler(&slow);
    source.StartListening();
    fifo.Write("[A]\n.\n");
    delivering.get_future().wait();
    test::RecordingHandler late;
    std::atomic<bool> attached = false;
    std::thread wiring([&] {
        source.AddHandler(&late, "A");
        attached = true;
    });
    EXPECT_TRUE(test::StaysFalse([&] { return attached.load(); }, 100ms));
    release.set_value();
    wiring.join();
    source.StopListening();
    EXPECT_EQ(late.Count(), 0U);
}

TEST_F(EventServerSourceTest, NamesItself) {
    EXPECT_EQ(source.ToString(), "EventSource{server}");
}

}  // namespace

}  // namespace kelto::halvek::source
