#include "companions/ctl/TimeRanges.h"
#include "handler/FilterChain.h"
#include "tests/fakes/FakeClock.h"

#include <gmock/gmock.h>

#include <array>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

using ::testing::Optional;

constexpr int minutesOfDay = 1440;

/** What the daemon's own filter says at each minute of a day. */
class DaemonsFilter {
public:
    explicit DaemonsFilter(const std::string& value) { filter.Configure({{"EnabledTimes", value}}); }

    bool IsOpen(int minute) {
        std::array<char, 32> time{};
        std::snprintf(time.data(), time.size(), "2026-11-23 %02d:%02d:00", minute / 60, minute % 60);
        clock.Set(time.data());
        return !filter.IsFiltered();
    }

private:
    test::FakeClock clock{"2026-11-23 00:00:00", "UTC"};
    FilterChain filter;
};

std::string RandomValue(std::mt19937& random) {
    static const std::vector<std::string> pieces = {"0",  "-", ",",    "800-1200", "1300", "2400", "2200-600", "-", ",",
                                                    "59", "7", "2359", " ",        "x",    "100",  "860",      "-1"};
    std::string value;
    for (size_t count = 1 + random() % 5; count > 0; --count) {
        value += pieces[random() % pieces.size()];
    }
    return value;
}

void ExpectSameAsTheDaemon(const std::string& value) {
    const TimeRanges ranges(value);
    DaemonsFilter daemon(value);
    bool isEverOpen = false;
    for (int minute = 0; minute < minutesOfDay; ++minute) {
        const bool isOpen = daemon.IsOpen(minute);
        ASSERT_EQ(ranges.IsOpen(minute / 60 * 100 + minute % 60), isOpen) << value << " at minute " << minute;
        isEverOpen = isEverOpen || isOpen;
    }
    ASSERT_EQ(ranges.IsNeverOpen(), !isEverOpen) << value;
}

TEST(TimeRanges, TheyAreOpenWhenTheDaemonsFilterIs) {
    for (const char* value :
         {"800-1700", "2200-600", "2200-2400,0-600", "800-800", "800-1700,", "x", "0-2400", "22-24"}) {
        ExpectSameAsTheDaemon(value);
    }
    std::mt19937 random(1);
    for (int i = 0; i < 300; ++i) {
        ExpectSameAsTheDaemon(RandomValue(random));
    }
}

TEST(TimeRanges, WhatIsMendedIsReadAsItWasMeant) {
    const auto mended = [](const std::string& value) { return TimeRanges(value).Mended(); };
    EXPECT_THAT(mended("8:00-17:00"), Optional(std::string("800-1700")));
    EXPECT_THAT(mended("8.30 - 17"), Optional(std::string("830-1700")));
    EXPECT_THAT(mended("2200-600"), Optional(std::string("2200-2400,0-600")));
    EXPECT_THAT(mended("22-0"), Optional(std::string("2200-2400")));
    EXPECT_THAT(mended("8am-5pm"), Optional(std::string("800-1700")));
    EXPECT_THAT(mended("800-1200, 1300-1730,"), Optional(std::string("800-1200,1300-1730")));
    for (const char* value : {"always", "", "800", "800-2500", "8-17-19"}) {
        EXPECT_EQ(mended(value), std::nullopt) << value;
    }
}

TEST(TimeRanges, DaysAreMendedByTheirNames) {
    EXPECT_THAT(MendedDays("mtwrf"), Optional(std::string("MTWRF")));
    EXPECT_THAT(MendedDays("Mon-Fri"), Optional(std::string("MTWRF")));
    EXPECT_THAT(MendedDays("Sat, Sun"), Optional(std::string("SU")));
    EXPECT_THAT(MendedDays("thursday"), Optional(std::string("R")));
    EXPECT_THAT(MendedDays("M,T,W"), Optional(std::string("MTW")));
    for (const char* value : {"xyz", "", "1-5", "Mon-Tue-Wed"}) {
        EXPECT_EQ(MendedDays(value), std::nullopt) << value;
    }
}

}  // namespace

}  // namespace kelto::halvek::ctl
