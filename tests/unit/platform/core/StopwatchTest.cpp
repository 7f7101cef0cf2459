#include "kelto/core/Stopwatch.h"
#include "tests/support/WaitUntil.h"

#include <gtest/gtest.h>

namespace kelto::core {

namespace {

bool WaitUntilReads(const Stopwatch& stopwatch, double seconds) {
    return test::WaitUntil([&] { return stopwatch.GetSeconds() >= seconds; });
}

TEST(Stopwatch, ReadsZeroBeforeItsFirstStart) {
    const Stopwatch stopwatch(false);
    EXPECT_EQ(stopwatch.GetSeconds(), 0.0);
}

TEST(Stopwatch, RunsFromTheBeginningIfItIsToldSo) {
    const Stopwatch stopwatch(true);
    EXPECT_TRUE(WaitUntilReads(stopwatch, 0.002));
}

TEST(Stopwatch, KeepsItsReadingAfterTheStop) {
    Stopwatch stopwatch(true);
    EXPECT_TRUE(WaitUntilReads(stopwatch, 0.002));
    stopwatch.Stop();
    const double reading = stopwatch.GetSeconds();
    EXPECT_GE(reading, 0.002);
    const Stopwatch other(true);
    EXPECT_TRUE(WaitUntilReads(other, 0.002));
    EXPECT_EQ(stopwatch.GetSeconds(), reading);
}

TEST(Stopwatch, StartsAgainFromZero) {
    Stopwatch stopwatch(true);
    EXPECT_TRUE(WaitUntilReads(stopwatch, 0.05));
    stopwatch.Start();
    stopwatch.Stop();
    EXPECT_GE(stopwatch.GetSeconds(), 0.0);
    EXPECT_LT(stopwatch.GetSeconds(), 0.05);
}

TEST(Stopwatch, ReadsSecondsOfTheSteadyClock) {
    const auto begin = std::chrono::steady_clock::now();
    Stopwatch stopwatch(true);
    EXPECT_TRUE(WaitUntilReads(stopwatch, 0.02));
    stopwatch.Stop();
    const std::chrono::duration<double> outside = std::chrono::steady_clock::now() - begin;
    EXPECT_LE(stopwatch.GetSeconds(), outside.count());
}

}  // namespace

}  // namespace kelto::core
