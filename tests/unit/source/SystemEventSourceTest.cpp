#include "event/SystemEvent.h"
#include "source/SystemEventSource.h"
#include "tests/fakes/RecordingHandler.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"

#include <functional>

namespace kelto::halvek::source {

namespace {

class SystemEventSourceTest : public ::testing::Test {
protected:
    void ExpectOneErrorAndNoChange(const std::function<void()>& operation) {
        const test::LogCapture log;
        operation();
        EXPECT_THAT(log.Lines(), ElementsAre("Error halvek: SystemEventSource: Now an external event, this should not "
                                             "have been called!"));
        EXPECT_FALSE(source.IsConfigured());
        EXPECT_EQ(source.GetCurrentThread(), nullptr);
    }

    SystemEventSource source{"System"};
};

TEST_F(SystemEventSourceTest, ConfiguringLogsTheError) {
    ExpectOneErrorAndNoChange([this] { source.Configure({{"key", "value"}}); });
}

TEST_F(SystemEventSourceTest, StartingLogsTheErrorAndStartsNothing) {
    ExpectOneErrorAndNoChange([this] { source.StartListening(); });
}

TEST_F(SystemEventSourceTest, StoppingLogsTheError) {
    ExpectOneErrorAndNoChange([this] { source.StopListening(); });
}

TEST_F(SystemEventSourceTest, RunningLogsTheErrorAndReturns) {
    ExpectOneErrorAndNoChange([this] { source.Run(); });
}

TEST_F(SystemEventSourceTest, AskingItToStopLogsTheError) {
    ExpectOneErrorAndNoChange([this] { source.Stop(); });
}

TEST_F(SystemEventSourceTest, NamesItself) {
    EXPECT_EQ(source.ToString(), "EventSource{System}");
}

TEST_F(SystemEventSourceTest, TakesHandlersButFiresNothing) {
    const test::LogCapture log;
    test::RecordingHandler handler;
    source.AddHandler(&handler);
    source.AddHandler(&handler, "id");
    EXPECT_EQ(log.Count("Trace halvek: Called base class AddHandler"), 2U);
    event::SystemEvent event(Event::Properties{{"eventType", "System"}});
    EXPECT_THAT([&] { source.FireEvent(event); }, FailsWith("EventSource: not configured"));
    EXPECT_EQ(handler.Count(), 0U);
}

}  // namespace

}  // namespace kelto::halvek::source
