#include "source/GivenUpAlerts.h"
#include "tests/fakes/FailingAllocation.h"
#include "tests/support/FreshProcess.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"
#include "tests/support/WaitUntil.h"

#include <optional>
#include <string>
#include <utility>

namespace kelto::halvek::source {

namespace {

using namespace std::chrono_literals;

std::string Warning(int count) {
    return "Warning kelto.msgbus: " + std::to_string(count) + " alerts of more than 60000 bytes were given up";
}

void AddAndTell(GivenUpAlerts& alerts, int count) {
    for (int number = 0; number < count; ++number) {
        alerts.Add();
        alerts.Tell();
    }
}

TEST(GivenUpAlerts, TheFirstIsToldAtOnceAndWhatFollowsItAtTheEnd) {
    const test::LogCapture log;
    {
        GivenUpAlerts alerts(1h);
        AddAndTell(alerts, 1);
        EXPECT_THAT(log.Lines(), ElementsAre(Warning(1)));
        AddAndTell(alerts, 1000);
        EXPECT_THAT(log.Lines(), ElementsAre(Warning(1)));
    }
    EXPECT_THAT(log.Lines(), ElementsAre(Warning(1), Warning(1000)));
}

TEST(GivenUpAlerts, AfterThePauseTheNextAlertTellsWhatWasCounted) {
    const test::LogCapture log;
    GivenUpAlerts alerts(200ms);
    AddAndTell(alerts, 1);
    alerts.Add();
    alerts.Add();
    EXPECT_TRUE(test::WaitUntil([&] {
        alerts.Tell();
        return log.Has(Warning(2));
    }));
    alerts.Tell();
    EXPECT_THAT(log.Lines(), ElementsAre(Warning(1), Warning(2)));
}

TEST(GivenUpAlerts, WithoutAnyThereIsNothingToTell) {
    const test::LogCapture log;
    {
        GivenUpAlerts alerts(0ms);
        alerts.Tell();
        alerts.TellRest();
    }
    EXPECT_EQ(log.Text(), "");
}

TEST(GivenUpAlerts, TellingTheRestNeedsNoMemory) {
    // As long as nobody else has asked for the logger.
    test::ExpectInFreshProcess([] {
        std::optional<GivenUpAlerts> alerts(std::in_place);
        alerts->Add();
        const test::FailingAllocation failing(0);
        alerts.reset();
        EXPECT_FALSE(test::FailingAllocation::HasFailed());
    });
}

}  // namespace

}  // namespace kelto::halvek::source
