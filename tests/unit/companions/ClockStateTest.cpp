#include "companions/common/ClockState.h"

#include <gmock/gmock.h>

#include <ctime>

namespace kelto::companion {

namespace {

TEST(ClockState, TimesAreUtcWithMilliseconds) {
    EXPECT_EQ(ClockState::IsoTime(0), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(ClockState::IsoTime(1795269909123), "2026-11-21T14:05:09.123Z");
    EXPECT_EQ(ClockState::IsoTime(-1), "1969-12-31T23:59:59.999Z");
    // Past the end of 32 bits.
    EXPECT_EQ(ClockState::IsoTime(2208988800000), "2040-01-01T00:00:00.000Z");
}

TEST(ClockState, NowIsTheClocksTime) {
    const int64_t before = static_cast<int64_t>(time(nullptr)) * 1000;
    const int64_t now = ClockState::Now();
    EXPECT_GE(now, before);
    EXPECT_LT(now, before + 60000);
}

TEST(ClockState, TheWordTellsWhetherTheClockIsSynced) {
    EXPECT_EQ(ClockState::Word(), ClockState::IsSynced() ? "synced" : "unsynced");
}

TEST(ClockState, ABootHasAnIdOf32Digits) {
    EXPECT_THAT(ClockState::BootId(), ::testing::MatchesRegex("[0-9a-f]{32}"));
    EXPECT_EQ(ClockState::BootId(), ClockState::BootId());
}

}  // namespace

}  // namespace kelto::companion
