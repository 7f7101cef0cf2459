#include "companions/outbox/Ledger.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

namespace kelto::halvek::outbox {
namespace {

class LedgerTest : public testing::Test {
protected:
    LedgerTest() { ledger.Open(); }

    test::TempDir folder;
    const std::string path = folder.PathOf("counts");
    Ledger ledger{path};
};

TEST_F(LedgerTest, AnotherServiceGoesOnCounting) {
    ledger.Enter(7, Ledger::Fate::Delivered);
    ledger.Enter(8, Ledger::Fate::Uncertain);
    Ledger next(path);
    next.Open();
    EXPECT_EQ(next.GetCounts().delivered, 1U);
    EXPECT_EQ(next.GetCounts().uncertain, 1U);
    EXPECT_EQ(next.GetCounts().dropped, 0U);
}

TEST_F(LedgerTest, WhatEndedIsKnownUntilItsFileIsGone) {
    ledger.Enter(7, Ledger::Fate::Delivered);
    ledger.Note(9);
    ledger.Gone(7);
    ledger.Enter(8, Ledger::Fate::Failed);
    Ledger next(path);
    next.Open();
    EXPECT_FALSE(next.HasEnded(7));
    EXPECT_TRUE(next.HasEnded(8));
    EXPECT_TRUE(next.HasEnded(9));
    EXPECT_EQ(next.HighestId(), 9U);
}

TEST_F(LedgerTest, MoreThanAPageIsReadBackAndShrinksAgain) {
    for (uint64_t id = 1; id <= 500; ++id) {
        ledger.Enter(id + (uint64_t{1} << 50U), Ledger::Fate::Delivered);
    }
    Ledger next(path);
    next.Open();
    EXPECT_EQ(next.Ended().size(), 500U);
    for (uint64_t id = 1; id <= 500; ++id) {
        next.Gone(id + (uint64_t{1} << 50U));
    }
    next.Enter(3, Ledger::Fate::Delivered);
    Ledger last(path);
    last.Open();
    EXPECT_EQ(last.Ended(), std::set<uint64_t>{3});
    EXPECT_EQ(last.GetCounts().delivered, 501U);
}

TEST_F(LedgerTest, AFileThatIsCutStillSaysWhatItsWholeLinesSay) {
    for (off_t length = 200; length >= 0; --length) {
        test::TempDir other;
        const std::string cut = other.PathOf("counts");
        Ledger whole(cut);
        whole.Open();
        whole.Enter(7, Ledger::Fate::Delivered);
        ASSERT_EQ(truncate(cut.c_str(), length), 0);
        Ledger next(cut);
        next.Open();
        // "delivered=1" and its line's end.
        EXPECT_EQ(next.GetCounts().delivered, length >= 12 ? 1U : 0U) << length;
    }
}

TEST_F(LedgerTest, WhatWasSpentOnFlashHoldsForAnotherServiceAndForADayOnly) {
    constexpr uint64_t limit = 100;
    EXPECT_TRUE(ledger.MayWriteFlash(1000, 100, limit));
    ledger.SpendFlash(70);
    Ledger next(path);
    next.Open();
    EXPECT_TRUE(next.MayWriteFlash(2000, 30, limit));
    EXPECT_FALSE(next.MayWriteFlash(2000, 31, limit));
    EXPECT_FALSE(next.MayWriteFlash(FlashBudget::day - 1, 31, limit));
    EXPECT_TRUE(next.MayWriteFlash(FlashBudget::day, 100, limit));
    EXPECT_FALSE(next.MayWriteFlash(FlashBudget::day, 101, limit));
}

TEST_F(LedgerTest, AMonthOfAnOutageCostsNoDayMoreThanItsBudget) {
    constexpr int64_t minute = 60'000;
    constexpr int64_t month = 30 * FlashBudget::day;
    constexpr uint64_t limit = 64 * 1024 * 1024;
    constexpr uint64_t picture = 100'000;
    uint64_t all = 0;
    uint64_t ofDay = 0;
    for (int64_t now = 0; now < month; now += minute) {
        if (now % FlashBudget::day == 0) {
            EXPECT_LE(ofDay, limit);
            ofDay = 0;
        }
        if (ledger.MayWriteFlash(now, picture, limit)) {
            ledger.SpendFlash(picture);
            ofDay += picture;
            all += picture;
        }
    }
    EXPECT_LE(ofDay, limit);
    EXPECT_EQ(all, 30 * (limit / picture) * picture);
}

}  // namespace
}  // namespace kelto::halvek::outbox
