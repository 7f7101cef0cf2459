#include "companions/common/BackOff.h"

#include <gmock/gmock.h>

#include <set>

namespace kelto::companion {

namespace {

using Milliseconds = BackOff::Milliseconds;

TEST(BackOffTest, TheLimitDoublesUpToTheLast) {
    BackOff backOff(Milliseconds(1000), Milliseconds(60000));
    for (const int limit : {1000, 2000, 4000, 8000, 16000, 32000, 60000, 60000}) {
        EXPECT_EQ(backOff.Limit(), Milliseconds(limit));
        const Milliseconds wait = backOff.Next();
        EXPECT_GE(wait, Milliseconds(0));
        EXPECT_LE(wait, Milliseconds(limit));
    }
}

TEST(BackOffTest, WaitsAreSpreadOverAllThatIsAllowed) {
    BackOff backOff(Milliseconds(60000), Milliseconds(60000));
    std::set<int64_t> tenths;
    for (int attempt = 0; attempt < 1000; ++attempt) {
        tenths.insert(backOff.Next().count() * 10 / 60001);
    }
    EXPECT_EQ(tenths.size(), 10U);
}

TEST(BackOffTest, TwoOfThemWaitForDifferentTimes) {
    BackOff one(Milliseconds(60000), Milliseconds(60000));
    BackOff other(Milliseconds(60000), Milliseconds(60000));
    int equal = 0;
    for (int attempt = 0; attempt < 20; ++attempt) {
        equal += one.Next() == other.Next() ? 1 : 0;
    }
    EXPECT_LT(equal, 5);
}

TEST(BackOffTest, AfterASuccessItBeginsAnew) {
    BackOff backOff(Milliseconds(1000), Milliseconds(60000));
    backOff.Next();
    backOff.Next();
    backOff.Reset();
    EXPECT_EQ(backOff.Limit(), Milliseconds(1000));
}

TEST(BackOffTest, ItCanBeginWithAnotherLimitButNoneAboveTheLast) {
    BackOff backOff(Milliseconds(1000), Milliseconds(60000));
    backOff.ResetTo(Milliseconds(30000));
    EXPECT_EQ(backOff.Limit(), Milliseconds(30000));
    backOff.ResetTo(Milliseconds(90000));
    EXPECT_EQ(backOff.Limit(), Milliseconds(60000));
}

}  // namespace

}  // namespace kelto::companion
