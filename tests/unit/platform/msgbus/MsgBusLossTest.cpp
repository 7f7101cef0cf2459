#include "kelto/msgbus/MsgBus.h"
#include "tests/fakes/ScriptedService.h"
#include "tests/fakes/SilentSocket.h"
#include "tests/support/Descriptors.h"
#include "tests/support/LetPass.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"
#include "tests/support/PrivateBus.h"
#include "tests/support/ProcessState.h"
#include "tests/support/WaitUntil.h"
#include "tests/unit/platform/msgbus/HeardMessages.h"

#include <chrono>
#include <memory>

namespace kelto::msgbus {

namespace {

using namespace std::chrono_literals;
using State = test::PrivateBus::State;
using test::ScriptedService;

constexpr const char* connected = "Information kelto.msgbus: Connected to the message bus";
constexpr const char* lost = "Warning kelto.msgbus: There is no message bus, looking for it: ";

const MessageFilter filter{
    .name = "StateChanged", .domain = "com.kelto.AlarmV3", .sender = "com.kelto.AlarmV3", .path = "/com/kelto/AlarmV3"};

test::BusSignal StateChanged() {
    return test::ProviderSignal("AlarmV3", "StateChanged", {"Local", 1, true});
}

/** Signals until one has been heard; false if none was within the ten seconds that a bus's return may take. */
bool FlowsAgain(const HeardMessages& heard) {
    ScriptedService service("AlarmV3");
    const size_t before = heard.Count();
    const auto isHeard = [&] {
        service.Emit(StateChanged());
        return heard.Count() > before;
    };
    return test::WaitUntil(isHeard, 10s);
}

TEST(MsgBusLoss, WithoutABusTheStartReturnsAtOnceWithOneWarning) {
    const test::PrivateBus daemon(State::Absent);
    const test::LogCapture log;
    HeardMessages heard;
    MsgBus bus;
    bus.Subscribe(filter, &heard);
    EXPECT_LT(test::TimeOf([&] { bus.Start(); }), 500ms);
    EXPECT_LT(test::TimeOf([&] { bus.Start(); }), 500ms);
    EXPECT_THAT(log.Lines(), ElementsAre(StartsWith(lost)));
    EXPECT_THAT(log.Lines(), ElementsAre(HasSubstr("Cannot open the message bus: No such file or directory")));
}

TEST(MsgBusLoss, WithoutABusSubscribingAndUnsubscribingReturnAtOnceWithoutAnotherWarning) {
    const test::PrivateBus daemon(State::Absent);
    const test::LogCapture log;
    HeardMessages heard;
    MsgBus bus;
    bus.Start();
    for (int round = 0; round < 20; ++round) {
        EXPECT_LT(test::TimeOf([&] { bus.Subscribe(filter, &heard); }), 500ms);
        EXPECT_LT(test::TimeOf([&] { bus.Unsubscribe(&heard); }), 500ms);
        bus.Start();
    }
    EXPECT_THAT(log.Lines(), SizeIs(1));
}

TEST(MsgBusLoss, WhatWasSubscribedWithoutABusComesAliveWhenThereIsOne) {
    test::PrivateBus daemon(State::Absent);
    const test::LogCapture log;
    HeardMessages before;
    HeardMessages after;
    MsgBus bus;
    bus.Subscribe(filter, &before);
    bus.Start();
    bus.Subscribe(filter, &after);
    daemon.Start();
    EXPECT_TRUE(FlowsAgain(before));
    EXPECT_TRUE(after.WaitForCount(1));
    EXPECT_EQ(log.Count(connected), 1U);
    EXPECT_EQ(daemon.CountMatchRules("com.kelto.AlarmV3"), 1U);
}

TEST(MsgBusLoss, KilledAndStartedAgainTwentyTimesSignalsFlowWithinTenSecondsEachAndNothingIsLeftOver) {
    test::PrivateBus daemon;
    test::LogCapture log;
    HeardMessages heard;
    MsgBus bus;
    bus.Subscribe(filter, &heard);
    bus.Start();
    ASSERT_TRUE(FlowsAgain(heard));
    const size_t threads = test::CountThreads();
    const size_t descriptors = test::OpenDescriptors().size();
    log.Clear();
    for (size_t round = 1; round <= 20; ++round) {
        daemon.Kill();
        ASSERT_TRUE(test::WaitUntil([&] { return log.Text().find(lost) != std::string::npos; }));
        daemon.Start();
        ASSERT_TRUE(FlowsAgain(heard)) << "round " << round;
        EXPECT_EQ(daemon.CountMatchRules("com.kelto.AlarmV3"), 1U);
        EXPECT_EQ(log.Count(connected), 1U);
        log.Clear();
    }
    EXPECT_TRUE(test::WaitUntil([&] { return test::CountThreads() == threads; }));
    EXPECT_EQ(test::OpenDescriptors().size(), descriptors);
}

TEST(MsgBusLoss, HoweverLongTheBusWasAwaySignalsFlowWithinTenSecondsOfItsReturn) {
    test::PrivateBus daemon(State::Absent);
    const test::LogCapture log;
    HeardMessages heard;
    MsgBus bus;
    bus.Subscribe(filter, &heard);
    bus.Start();
    // Pauses that went on doubling would last longer than ten seconds by now.
    test::LetPass(13500ms);
    daemon.Start();
    EXPECT_TRUE(FlowsAgain(heard));
}

TEST(MsgBusLoss, ALossIsWarnedOfOnceHoweverLongItLasts) {
    test::PrivateBus daemon;
    test::LogCapture log;
    HeardMessages heard;
    MsgBus bus;
    bus.Subscribe(filter, &heard);
    bus.Start();
    ASSERT_TRUE(log.WaitFor(connected));
    log.Clear();
    daemon.Kill();
    ASSERT_TRUE(test::WaitUntil([&] { return !log.Lines().empty(); }));
    // Long enough for several attempts to connect.
    test::LetPass(1s);
    EXPECT_THAT(log.Lines(), ElementsAre(StartsWith(lost)));
}

TEST(MsgBusLoss, ChangesMadeWhileTheBusIsAwayCountWhenItIsBack) {
    test::PrivateBus daemon;
    const test::LogCapture log;
    HeardMessages stays;
    HeardMessages goes;
    HeardMessages comes;
    const MessageFilter other{.name = "n", .domain = "com.zentu.goes", .sender = "", .path = ""};
    MsgBus bus;
    bus.Subscribe(filter, &stays);
    bus.Subscribe(other, &goes);
    bus.Start();
    daemon.Kill();
    ASSERT_TRUE(test::WaitUntil([&] { return log.Text().find(lost) != std::string::npos; }));
    bus.Unsubscribe(&goes);
    bus.Subscribe(filter, &comes);
    daemon.Start();
    ASSERT_TRUE(FlowsAgain(stays));
    EXPECT_TRUE(comes.WaitForCount(1));
    EXPECT_EQ(daemon.CountMatchRules(""), 1U);
}

TEST(MsgBusLoss, AServiceMayGoAndComeBackWhileTheBusStays) {
    const test::PrivateBus daemon;
    HeardMessages heard;
    MsgBus bus;
    bus.Subscribe(filter, &heard);
    bus.Start();
    for (size_t round = 1; round <= 5; ++round) {
        ScriptedService service("AlarmV3");
        service.Emit(StateChanged());
        ASSERT_TRUE(heard.WaitForCount(round));
    }
}

TEST(MsgBusLoss, LookingForABusIsGivenUpAtOnceByAStop) {
    const test::PrivateBus daemon(State::Absent);
    const test::LogCapture log;
    auto bus = std::make_unique<MsgBus>();
    bus->Start();
    // By now the pauses are longer than what is allowed below.
    test::LetPass(1500ms);
    EXPECT_LT(test::TimeOf([&] { bus.reset(); }), 500ms);
}

TEST(MsgBusLoss, ABusThatAcceptsAndNeverAnswersHoldsAStartUpForASecondAtMost) {
    const test::PrivateBus daemon(State::Absent);
    const test::SilentSocket silent(daemon.GetSocketPath());
    const test::LogCapture log;
    HeardMessages heard;
    MsgBus bus;
    bus.Subscribe(filter, &heard);
    EXPECT_LT(test::TimeOf([&] { bus.Start(); }), 1500ms);
    EXPECT_LT(test::TimeOf([&] { bus.Unsubscribe(&heard); }), 500ms);
}

TEST(MsgBusLoss, ABusThatAcceptsAndNeverAnswersDoesNotHoldUpAStop) {
    const test::PrivateBus daemon(State::Absent);
    const test::SilentSocket silent(daemon.GetSocketPath());
    const test::LogCapture log;
    auto bus = std::make_unique<MsgBus>();
    bus->Start();
    EXPECT_LT(test::TimeOf([&] { bus.reset(); }), 1s);
}

TEST(MsgBusLoss, ABusThatStopsAnsweringHoldsASubscriptionUpForASecondAtMost) {
    test::PrivateBus daemon;
    const test::LogCapture log;
    HeardMessages heard;
    MsgBus bus;
    bus.Start();
    daemon.Freeze();
    const auto time = test::TimeOf([&] { bus.Subscribe(filter, &heard); });
    daemon.Thaw();
    EXPECT_GT(time, 900ms);
    EXPECT_LT(time, 2s);
    EXPECT_TRUE(FlowsAgain(heard));
}

}  // namespace

}  // namespace kelto::msgbus
