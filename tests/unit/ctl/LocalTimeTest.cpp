#include "companions/ctl/Failure.h"
#include "companions/ctl/LocalTime.h"
#include "companions/ctl/Zone.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <ctime>
#include <string>

namespace kelto::halvek::ctl {

namespace {

/** Puts the test into a time zone, and back into UTC behind it. */
class LocalTimeTest : public testing::Test {
protected:
    static void Use(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }

    ~LocalTimeTest() override { Use("UTC"); }
};

TEST_F(LocalTimeTest, TimesAreWrittenWithTheirOffset) {
    Use("Europe/Berlin");
    EXPECT_EQ(LocalTime::Iso(1795335300), "2026-11-22T09:15:00+01:00");
    Use("America/St_Johns");
    EXPECT_EQ(LocalTime::Iso(1795335300), "2026-11-22T04:45:00-03:30");
    EXPECT_EQ(LocalTime::OffsetText(0), "+00:00");
}

TEST_F(LocalTimeTest, TimesBeyond2038AreTimes) {
    Use("UTC");
    EXPECT_EQ(LocalTime::Iso(4102444800), "2100-01-01T00:00:00+00:00");
    EXPECT_EQ(LocalTime::Parse("2100-01-01T00:00"), 4102444800);
}

TEST_F(LocalTimeTest, WhatIsWrittenIsRead) {
    for (const char* const zone : {"UTC", "Europe/Dublin", "Australia/Lord_Howe", "Pacific/Apia", "Asia/Kathmandu"}) {
        Use(zone);
        for (int64_t time = 1792000000; time < 1792000000 + 366 * 86400; time += 7 * 3600 + 60) {
            EXPECT_EQ(LocalTime::Parse(LocalTime::Iso(time)), time) << zone;
        }
    }
}

TEST_F(LocalTimeTest, WithoutAnOffsetLocalClocksAreMeant) {
    Use("Europe/Berlin");
    EXPECT_EQ(LocalTime::Parse("2026-11-22T09:15"), 1795335300);
    EXPECT_EQ(LocalTime::Parse("2026-11-22T09:15:00"), 1795335300);
    EXPECT_EQ(LocalTime::Parse("2026-11-22T08:15Z"), 1795335300);
    EXPECT_EQ(LocalTime::Parse("2026-11-22T04:45-03:30"), 1795335300);
}

TEST_F(LocalTimeTest, OfATimeThatComesTwiceTheFirstIsMeant) {
    Use("Europe/Berlin");
    EXPECT_EQ(LocalTime::Iso(LocalTime::Parse("2026-10-25T02:30")), "2026-10-25T02:30:00+02:00");
}

TEST_F(LocalTimeTest, ATimeThatClocksLeaveOutIsRefused) {
    Use("Europe/Berlin");
    EXPECT_THROW(LocalTime::Parse("2026-03-29T02:30"), UsageError);
    EXPECT_NO_THROW(LocalTime::Parse("2026-03-29T03:00"));
    Use("Australia/Lord_Howe");
    EXPECT_THROW(LocalTime::Parse("2026-10-04T02:15"), UsageError);
    EXPECT_NO_THROW(LocalTime::Parse("2026-10-04T02:30"));
}

TEST_F(LocalTimeTest, WhatIsNoTimeIsRefused) {
    for (const char* const text :
         {"", "tomorrow", "2026-11-22", "2026-13-01T00:00", "2026-02-30T00:00", "2026-11-22T24:01", "2026-11-22T09:60",
          "2026-11-22T09:15+", "2026-11-22T09:15 ", "2026-11-22T09:15Zx"}) {
        EXPECT_THROW(LocalTime::Parse(text), UsageError) << text;
    }
}

TEST_F(LocalTimeTest, ADayThatWasLeftOutBeginsWithTheNext) {
    Use("Pacific/Apia");
    EXPECT_EQ(LocalTime::StartOf({2011, 12, 30}), LocalTime::StartOf({2011, 12, 31}));
    EXPECT_EQ(LocalTime::StartOf({2011, 12, 31}) - LocalTime::StartOf({2011, 12, 29}), 86400);
}

TEST_F(LocalTimeTest, ADayBeginsWhenItsFirstMinuteDoes) {
    // Clocks go from 23:59 to 01:00.
    Use("America/Asuncion");
    EXPECT_EQ(LocalTime::Iso(LocalTime::StartOf({2023, 10, 1})), "2023-10-01T01:00:00-03:00");
}

TEST(Date, DaysGoOverMonthsAndYears) {
    EXPECT_EQ((Date{2028, 2, 28}.Plus(1)), (Date{2028, 2, 29}));
    EXPECT_EQ((Date{2026, 12, 31}.Plus(1)), (Date{2027, 1, 1}));
    EXPECT_EQ((Date{2026, 3, 1}.Plus(-1)), (Date{2026, 2, 28}));
    EXPECT_STREQ((Date{2026, 11, 22}.Weekday()), "Sun");
}

TEST(Date, WhatIsNoDayIsRefused) {
    EXPECT_EQ(Date::Parse("2026-11-22"), (Date{2026, 11, 22}));
    for (const char* const text :
         {"", "today", "2026-2-3", "2026-02-29", "2026-00-01", "2026-11-22T00:00", "20261122"}) {
        EXPECT_THROW(Date::Parse(text), UsageError) << text;
    }
}

TEST(Zone, NamesAndRulesOfTheCLibraryAreZones) {
    for (const char* const zone : {"UTC", "Europe/Berlin", ":Europe/Berlin", "/usr/share/zoneinfo/Europe/Berlin",
                                   "CET-1CEST,M3.5.0,M10.5.0/3", "<+0530>-5:30", "EST5EDT"}) {
        EXPECT_TRUE(Zone::Exists(zone)) << zone;
    }
}

TEST(Zone, WhatTheCLibraryWouldTakeForUtcIsNone) {
    for (const char* const zone : {"", ":", "Europe/Berlim", "Europe", "../../etc/passwd", "/etc/passwd", "XYZ",
                                   "CET-1CEST,x", "Europe/../Europe/Berlin", "/nowhere"}) {
        EXPECT_FALSE(Zone::Exists(zone)) << zone;
    }
}

}  // namespace

}  // namespace kelto::halvek::ctl
