#include "companions/outbox/TargetState.h"

#include <gtest/gtest.h>

#include <string>

namespace kelto::halvek::outbox {
namespace {

TEST(TargetStateTest, WaitsGrowThreefoldUpToAQuarterOfAnHour) {
    TargetState state;
    for (const int64_t wait : {5'000, 15'000, 45'000, 135'000, 405'000, 900'000, 900'000}) {
        state.Failed(1'000, "down");
        EXPECT_GE(state.NextTry(), 1'000 + wait * 3 / 4);
        EXPECT_LE(state.NextTry(), 1'000 + wait * 5 / 4);
        EXPECT_EQ(std::string(state.Word()), "wait");
    }
}

TEST(TargetStateTest, ASuccessBeginsAnew) {
    TargetState state;
    state.Failed(0, "down");
    state.Failed(0, "down");
    state.Succeeded();
    EXPECT_TRUE(state.MayTry(0));
    EXPECT_EQ(state.Reason(), "");
    state.Failed(0, "down");
    EXPECT_LE(state.NextTry(), 6'250);
}

TEST(TargetStateTest, AClockThatIsNotSetIsNoFailure) {
    TargetState state;
    state.AwaitClock(0, "clock");
    EXPECT_EQ(state.NextTry(), 30'000);
    state.Failed(0, "down");
    EXPECT_LE(state.NextTry(), 6'250);
}

TEST(TargetStateTest, OnHoldItIsOneTryAnHourWhateverTheNetworkDoes) {
    TargetState state;
    state.Held(0, "password");
    EXPECT_EQ(state.NextTry(), 3'600'000);
    state.Probe();
    EXPECT_FALSE(state.MayTry(3'599'999));
    state.ProbeAnyway();
    EXPECT_TRUE(state.MayTry(0));
}

TEST(TargetStateTest, NewsOfTheNetworkProbeWhatWaits) {
    TargetState state;
    state.Failed(0, "down");
    state.Probe();
    EXPECT_TRUE(state.MayTry(0));
    EXPECT_EQ(state.GetKind(), TargetState::Kind::Wait);
}

}  // namespace
}  // namespace kelto::halvek::outbox
