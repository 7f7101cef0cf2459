#include "source/EventServerSource.h"
#include "source/SourceFactory.h"
#include "source/TimerEventSource.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"

namespace kelto::halvek {

namespace {

using ::testing::WhenDynamicCastTo;

template <typename Source>
auto IsA() {
    return WhenDynamicCastTo<Source*>(::testing::NotNull());
}

TEST(SourceFactory, TimerMakesATimer) {
    const test::LogCapture log;
    const std::unique_ptr<EventSource> source = CreateEventSource("Timer", nullptr);
    EXPECT_THAT(source.get(), IsA<source::TimerEventSource>());
    EXPECT_EQ(source->ToString(), "EventSource{Timer}");
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: \tCreating EventSource: Timer"));
}

TEST(SourceFactory, LowerCaseServerMakesAnEventServer) {
    const test::LogCapture log;
    const std::unique_ptr<EventSource> source = CreateEventSource("server", nullptr);
    EXPECT_THAT(source.get(), IsA<source::EventServerSource>());
    EXPECT_EQ(source->ToString(), "EventSource{server}");
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: \tCreating EventSource: server"));
}

TEST(SourceFactory, SystemIsKnownButMakesNothingAndWarnsOfNothing) {
    const test::LogCapture log;
    EXPECT_EQ(CreateEventSource("System", nullptr), nullptr);
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: \tCreating EventSource: System"));
}

TEST(SourceFactory, NamesInAnotherCaseAreUnknown) {
    for (const std::string name : {"timer", "TIMER", "Server", "system", "Timer ", ""}) {
        const test::LogCapture log;
        EXPECT_EQ(CreateEventSource(name, nullptr), nullptr);
        EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: \tCreating EventSource: " + name,
                                             "Warning halvek: \tUnknown EventSource: " + name));
    }
}

}  // namespace

}  // namespace kelto::halvek
