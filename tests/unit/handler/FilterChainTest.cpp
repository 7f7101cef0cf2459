#include "handler/FilterChain.h"
#include "tests/fakes/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace kelto::halvek {

namespace {

constexpr const char* illegalRange = "Warning halvek: FilterChain: Illegal time range setting, not filtering";
/** 2 March 2025 was a Sunday. */
const std::vector<std::string> week = {"2025-03-02", "2025-03-03", "2025-03-04", "2025-03-05",
                                       "2025-03-06", "2025-03-07", "2025-03-08"};

class NeverConfiguredFilter : public FilterChain {
public:
    bool IsConfigured() const override { return false; }
};

class FilterChainTest : public ::testing::Test {
protected:
    void Configure(const std::string& times) {
        filter.Configure({{"EnabledTimes", times}});
        log.Clear();
    }

    /** Whether an event passes at a time of day, "08:00" or "08:00:59". */
    bool PassesAt(std::string time) {
        time += time.size() == 5 ? ":00" : "";
        clock.Set("2025-03-05 " + time);
        return !filter.IsFiltered();
    }

    /** "UMTWRFS" with a "-" for each day on which an event is filtered. */
    std::string DaysThatPass(const std::string& days) {
        filter.Configure({{"EnabledDays", days}});
        std::string passed;
        for (size_t day = 0; day < week.size(); ++day) {
            clock.Set(week[day] + " 12:00:00");
            passed += filter.IsFiltered() ? '-' : "UMTWRFS"[day];
        }
        return passed;
    }

    test::FakeClock clock{"2025-03-05 12:00:00"};
    test::LogCapture log;
    FilterChain filter;
};

TEST_F(FilterChainTest, AskedUnconfiguredItThrows) {
    EXPECT_THAT([] { NeverConfiguredFilter().IsFiltered(); }, FailsWith("not configured"));
}

TEST_F(FilterChainTest, MayBeAskedOnSeveralThreadsAtOnce) {
    filter.Configure({{"EnabledTimes", "0-1159,1300-2400"}, {"EnabledDays", "UMTW"}});
    FilterChain open;
    open.Configure({{"EnabledTimes", "0-1159,1200-1201"}, {"EnabledDays", "W"}});
    std::atomic<int> passed = 0;
    std::atomic<int> passedOpen = 0;
    std::vector<std::jthread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([&] {
            for (int round = 0; round < 100; ++round) {
                passed += filter.IsFiltered() ? 0 : 1;
                passedOpen += open.IsFiltered() ? 0 : 1;
            }
        });
    }
    threads.clear();
    EXPECT_EQ(passed, 0);
    EXPECT_EQ(passedOpen, 400);
    EXPECT_EQ(log.Count("Debug halvek: FilterChain: Filtering event by time"), 400U);
}

TEST_F(FilterChainTest, WithoutSettingsEverythingPassesWithoutAWord) {
    EXPECT_TRUE(filter.IsConfigured());
    EXPECT_FALSE(filter.IsFiltered());
    filter.Configure({});
    EXPECT_FALSE(filter.IsFiltered());
    EXPECT_EQ(DaysThatPass(""), "UMTWRFS");
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(FilterChainTest, ConfiguringTellsWhichFiltersAreOn) {
    filter.Configure({{"EnabledTimes", "0-1"}});
    EXPECT_THAT(log.Lines(), ElementsAre("Information halvek: \tFilterChain: Configured time filter"));
    log.Clear();
    filter.Configure({{"EnabledDays", "x"}});
    EXPECT_THAT(log.Lines(), ElementsAre("Information halvek: \tFilterChain: Configured day filter"));
    log.Clear();
    filter.Configure({{"EnabledTimes", "0-1"}, {"EnabledDays", "x"}});
    EXPECT_THAT(log.Lines(), ElementsAre("Information halvek: \tFilterChain: Configured time filter",
                                         "Information halvek: \tFilterChain: Configured day filter"));
}

TEST_F(FilterChainTest, EachDayHasItsLetter) {
    EXPECT_EQ(DaysThatPass("U"), "U------");
    EXPECT_EQ(DaysThatPass("M"), "-M-----");
    EXPECT_EQ(DaysThatPass("T"), "--T----");
    EXPECT_EQ(DaysThatPass("W"), "---W---");
    EXPECT_EQ(DaysThatPass("R"), "----R--");
    EXPECT_EQ(DaysThatPass("F"), "-----F-");
    EXPECT_EQ(DaysThatPass("S"), "------S");
}

TEST_F(FilterChainTest, WorkingDaysFilterTheSundayAndPassTheThursday) {
    EXPECT_EQ(DaysThatPass("MTWRF"), "-MTWRF-");
}

TEST_F(FilterChainTest, LowerCaseLettersFilterEveryDay) {
    EXPECT_EQ(DaysThatPass("umtwrfs"), "-------");
}

TEST_F(FilterChainTest, OrderRepetitionAndOtherCharactersOfTheDaysDoNotMatter) {
    EXPECT_EQ(DaysThatPass("S, S and 7xU"), "U-----S");
}

TEST_F(FilterChainTest, TheDayIsThatOfTheLocalTimeZone) {
    const test::FakeClock aheadOfUtc("2025-03-03 00:30:00", "XXX-5");
    filter.Configure({{"EnabledDays", "M"}});
    EXPECT_FALSE(filter.IsFiltered());
}

TEST_F(FilterChainTest, TheTimeIsThatOfTheLocalTimeZone) {
    const test::FakeClock aheadOfUtc("2025-03-03 00:30:00", "XXX-5");
    Configure("0-100");
    EXPECT_FALSE(filter.IsFiltered());
}

TEST_F(FilterChainTest, TheLowBoundIsInTheRangeAndTheHighOneIsNot) {
    Configure("800-1700");
    EXPECT_FALSE(PassesAt("07:59"));
    EXPECT_TRUE(PassesAt("08:00"));
    EXPECT_TRUE(PassesAt("16:59"));
    EXPECT_FALSE(PassesAt("17:00"));
}

TEST_F(FilterChainTest, SecondsAreIgnored) {
    Configure("801-802");
    EXPECT_FALSE(PassesAt("08:00:59"));
    EXPECT_TRUE(PassesAt("08:01:00"));
    EXPECT_TRUE(PassesAt("08:01:59"));
    EXPECT_FALSE(PassesAt("08:02:00"));
}

TEST_F(FilterChainTest, SeveralRangesLeaveTheGapsFiltered) {
    Configure("800-1200,1300-1730");
    EXPECT_TRUE(PassesAt("11:59"));
    EXPECT_FALSE(PassesAt("12:00"));
    EXPECT_FALSE(PassesAt("12:59"));
    EXPECT_TRUE(PassesAt("13:00"));
    EXPECT_TRUE(PassesAt("17:29"));
    EXPECT_FALSE(PassesAt("17:30"));
}

TEST_F(FilterChainTest, TheHighBound2400LetsTheLastMinuteThrough) {
    Configure("2200-2400");
    EXPECT_TRUE(PassesAt("23:59:59"));
    EXPECT_FALSE(PassesAt("00:00"));
}

TEST_F(FilterChainTest, TheHighBound2359EndsTheDayAMinuteEarly) {
    Configure("0-2359");
    EXPECT_TRUE(PassesAt("00:00"));
    EXPECT_FALSE(PassesAt("23:59"));
}

TEST_F(FilterChainTest, ARangeOverMidnightFiltersAtEveryTimeOfDay) {
    Configure("2200-600");
    for (int hour = 0; hour < 24; ++hour) {
        std::array<char, 16> time{};
        std::snprintf(time.data(), time.size(), "%02d:30", hour);
        EXPECT_FALSE(PassesAt(time.data())) << time.data();
    }
    EXPECT_FALSE(log.Has(illegalRange));
}

TEST_F(FilterChainTest, ANightIsWrittenAsTwoRanges) {
    Configure("2200-2400,0-600");
    EXPECT_TRUE(PassesAt("23:00"));
    EXPECT_TRUE(PassesAt("05:59"));
    EXPECT_FALSE(PassesAt("06:00"));
}

TEST_F(FilterChainTest, EqualBoundsNeverMatch) {
    Configure("1200-1200");
    EXPECT_FALSE(PassesAt("12:00"));
    EXPECT_FALSE(log.Has(illegalRange));
}

TEST_F(FilterChainTest, BoundsMayHaveLeadingZeros) {
    Configure("0800-0930");
    EXPECT_FALSE(PassesAt("07:59"));
    EXPECT_TRUE(PassesAt("08:00"));
    EXPECT_FALSE(PassesAt("09:30"));
    EXPECT_FALSE(log.Has(illegalRange));
}

TEST_F(FilterChainTest, BoundsThatAreNoTimesOfDayAreJustCompared) {
    Configure("775-99999");
    EXPECT_FALSE(PassesAt("07:59"));
    EXPECT_TRUE(PassesAt("08:00"));
}

TEST_F(FilterChainTest, AnIllegalRangeWarnsAndLetsEverythingPass) {
    for (const std::string piece :
         {"abc", "800", "800-", "-800", "-", "--", "800-1700-", "800-1200-1700", "-5-1700", "800--1", "8:00-17:00",
          " 800-1700", "800 -1700", "800-1700 ", "+800-1700", "800-2147483648", "0x1-0x2", ","}) {
        Configure(piece);
        EXPECT_TRUE(PassesAt("03:00")) << piece;
        EXPECT_THAT(log.Lines(),
                    ElementsAre("Debug halvek: FilterChain: Checking if we are time filtered", illegalRange))
            << piece;
    }
}

TEST_F(FilterChainTest, ATrailingCommaIsAnIllegalEmptyRange) {
    Configure("800-1200,");
    EXPECT_TRUE(PassesAt("10:00"));
    EXPECT_FALSE(log.Has(illegalRange));
    EXPECT_TRUE(PassesAt("13:00"));
    EXPECT_TRUE(log.Has(illegalRange));
}

TEST_F(FilterChainTest, ALeadingCommaIsAnIllegalEmptyRange) {
    Configure(",800-1200");
    EXPECT_TRUE(PassesAt("13:00"));
    EXPECT_TRUE(log.Has(illegalRange));
}

TEST_F(FilterChainTest, AnIllegalRangeIsNotReadBehindAMatchingOne) {
    Configure("800-1200,bad,1300-1700");
    EXPECT_TRUE(PassesAt("10:00"));
    EXPECT_FALSE(log.Has(illegalRange));
}

TEST_F(FilterChainTest, AnIllegalRangeStandsBeforeAllThatFollow) {
    Configure("800-1200,bad,1300-1700");
    EXPECT_TRUE(PassesAt("14:00"));
    EXPECT_THAT(log.Lines(),
                ElementsAre("Debug halvek: FilterChain: Checking if we are time filtered",
                            "Debug halvek: FilterChain: Curtime   = 1400", "Debug halvek: FilterChain: LowRange  = 800",
                            "Debug halvek: FilterChain: HighRange = 1200", illegalRange));
}

TEST_F(FilterChainTest, LogsAMatchStepByStep) {
    Configure("0-100,800-1700");
    EXPECT_TRUE(PassesAt("08:05"));
    EXPECT_THAT(log.Lines(),
                ElementsAre("Debug halvek: FilterChain: Checking if we are time filtered",
                            "Debug halvek: FilterChain: Curtime   = 805", "Debug halvek: FilterChain: LowRange  = 0",
                            "Debug halvek: FilterChain: HighRange = 100", "Debug halvek: FilterChain: Curtime   = 805",
                            "Debug halvek: FilterChain: LowRange  = 800", "Debug halvek: FilterChain: HighRange = 1700",
                            "Debug halvek: FilterChain: Within range, not filtering"));
}

TEST_F(FilterChainTest, LogsADropByTimeStepByStep) {
    Configure("800-1700");
    EXPECT_FALSE(PassesAt("00:07"));
    EXPECT_THAT(log.Lines(),
                ElementsAre("Debug halvek: FilterChain: Checking if we are time filtered",
                            "Debug halvek: FilterChain: Curtime   = 7", "Debug halvek: FilterChain: LowRange  = 800",
                            "Debug halvek: FilterChain: HighRange = 1700",
                            "Debug halvek: FilterChain: Filtering event by time"));
}

TEST_F(FilterChainTest, LogsAnEnabledDayStepByStep) {
    filter.Configure({{"EnabledDays", "W"}});
    log.Clear();
    EXPECT_FALSE(filter.IsFiltered());
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: \tFilterChain: Checking if we are date filtered",
                                         "Debug halvek: \tFilterChain: Today's day is: 3",
                                         "Debug halvek: \tFilterChain: Date checked fine, not filtering"));
}

TEST_F(FilterChainTest, ADisabledDayIsNeverTestedAgainstTheTime) {
    filter.Configure({{"EnabledDays", "MTRFSU"}, {"EnabledTimes", "0-2400"}});
    log.Clear();
    EXPECT_FALSE(PassesAt("12:00"));
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: \tFilterChain: Checking if we are date filtered",
                                         "Debug halvek: \tFilterChain: Today's day is: 3"));
}

TEST_F(FilterChainTest, OnAnEnabledDayTheTimeDecides) {
    filter.Configure({{"EnabledDays", "W"}, {"EnabledTimes", "800-1700"}});
    EXPECT_TRUE(PassesAt("08:00"));
    EXPECT_FALSE(PassesAt("07:59"));
}

TEST_F(FilterChainTest, AbsentKeysSwitchTheFiltersOffAgain) {
    filter.Configure({{"EnabledDays", "X"}, {"EnabledTimes", "0-0"}});
    EXPECT_TRUE(filter.IsFiltered());
    filter.Configure({});
    EXPECT_FALSE(filter.IsFiltered());
}

TEST_F(FilterChainTest, DaysThatBecomeEmptyLeaveTheirFilterOn) {
    filter.Configure({{"EnabledDays", "W"}});
    filter.Configure({{"EnabledDays", ""}});
    EXPECT_TRUE(filter.IsFiltered());
    filter.Configure({});
    filter.Configure({{"EnabledDays", ""}});
    EXPECT_FALSE(filter.IsFiltered());
}

TEST_F(FilterChainTest, TimesThatBecomeEmptyLeaveTheirFilterOnWithAnIllegalRange) {
    filter.Configure({{"EnabledTimes", "0-0"}});
    filter.Configure({{"EnabledTimes", ""}});
    log.Clear();
    EXPECT_FALSE(filter.IsFiltered());
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: FilterChain: Checking if we are time filtered", illegalRange));
}

}  // namespace

}  // namespace kelto::halvek
