#include "kelto/core/Logger.h"
#include "tests/fakes/FailingAllocation.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <new>
#include <string>

namespace kelto::core {

namespace {

size_t UsedMemory() {
    return mallinfo2().uordblks;
}

bool GetsLogger(const std::string& name, size_t goodAllocations) {
    const test::FailingAllocation failing(goodAllocations);
    try {
        Logger::GetLogger(name.c_str());
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

// So many loggers that room for them has to be made several times. A sanitizer tells of what is lost by itself.
TEST(LoggerMemory, ALoggerForWhichThereIsNoRoomLeavesNothingBehind) {
    constexpr size_t repetitions = 100;
    // What is given back may stay with the thread for a while, and counts as used; what is lost is more, each time.
    constexpr size_t kept = repetitions * 16;
    size_t failures = 0;
    for (int number = 0; number < 64; ++number) {
        const std::string name = "a logger whose name needs memory " + std::to_string(number);
        for (size_t goodAllocations = 0; !GetsLogger(name, goodAllocations); ++goodAllocations) {
            const size_t used = UsedMemory();
            for (size_t repetition = 0; repetition < repetitions; ++repetition) {
                EXPECT_FALSE(GetsLogger(name, goodAllocations));
            }
            EXPECT_LT(UsedMemory(), used + kept) << number << ", " << goodAllocations;
            ++failures;
        }
    }
    EXPECT_GT(failures, 2U * 64U);
}

}  // namespace

}  // namespace kelto::core
