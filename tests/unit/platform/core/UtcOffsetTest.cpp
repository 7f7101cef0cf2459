#include "kelto/core/UtcOffset.h"
#include "tests/fakes/FakeClock.h"
#include "tests/support/FreshProcess.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>
#include <vector>

namespace kelto::core {

namespace {

constexpr const char* middleEurope = "CET-1CEST,M3.5.0,M10.5.0/3";

TEST(UtcOffset, IsThatOfTheZone) {
    test::FakeClock clock("2025-01-01 12:00:00", "XXX-05:45");
    UtcOffset::Refresh();
    EXPECT_EQ(UtcOffset::Get(), 5 * 3600 + 45 * 60);
}

TEST(UtcOffset, IsNegativeWestOfGreenwich) {
    test::FakeClock clock("2025-01-02 12:00:00", "XXX03:30");
    UtcOffset::Refresh();
    EXPECT_EQ(UtcOffset::Get(), -(3 * 3600 + 30 * 60));
}

TEST(UtcOffset, FollowsSummerTimeInItsFirstSecond) {
    test::FakeClock clock("2025-03-30 01:59:59", middleEurope);
    UtcOffset::Refresh();
    EXPECT_EQ(UtcOffset::Get(), 3600);
    clock.Set("2025-03-30 03:00:00");
    UtcOffset::Refresh();
    EXPECT_EQ(UtcOffset::Get(), 7200);
}

TEST(UtcOffset, FollowsTheEndOfSummerTime) {
    test::FakeClock clock("2025-10-26 01:59:00", middleEurope);
    UtcOffset::Refresh();
    EXPECT_EQ(UtcOffset::Get(), 7200);
    clock.Set("2025-10-26 03:00:00");
    UtcOffset::Refresh();
    EXPECT_EQ(UtcOffset::Get(), 3600);
}

TEST(UtcOffset, StaysAsLastSeenUntilTheNextLookUp) {
    test::FakeClock clock("2025-03-30 01:59:59", middleEurope);
    UtcOffset::Refresh();
    clock.Set("2025-07-01 12:00:00");
    EXPECT_EQ(UtcOffset::Get(), 3600);
}

TEST(UtcOffset, FollowsANewZoneWhenItIsRenewedAndNotBefore) {
    const test::FakeClock clock("2025-05-01 12:00:00", "XXX-05:45");
    UtcOffset::Refresh();
    setenv("TZ", "XXX03:30", 1);
    UtcOffset::Refresh();
    EXPECT_EQ(UtcOffset::Get(), 5 * 3600 + 45 * 60);
    UtcOffset::Renew();
    EXPECT_EQ(UtcOffset::Get(), -(3 * 3600 + 30 * 60));
}

TEST(UtcOffset, IsRightBeyond2038) {
    test::FakeClock clock("2040-07-01 12:00:00", middleEurope);
    UtcOffset::Refresh();
    EXPECT_EQ(UtcOffset::Get(), 7200);
}

TEST(UtcOffset, MayBeRefreshedAndReadByManyThreads) {
    test::FakeClock clock("2025-06-01 12:00:00", middleEurope);
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([] {
            for (int turn = 0; turn < 1000; ++turn) {
                UtcOffset::Refresh();
                EXPECT_EQ(UtcOffset::Get(), 7200);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(UtcOffset, IsLookedUpInTheFirstQuarterOfAnHourThatThereIsToo) {
    // Where a camera without a clock of its own begins.
    test::ExpectInFreshProcess([] {
        test::FakeClock clock("1970-01-01 09:05:00", "XXX-09");
        UtcOffset::Refresh();
        EXPECT_EQ(UtcOffset::Get(), 9 * 3600);
    });
}

}  // namespace

}  // namespace kelto::core
