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
    size_t failures = 0;
    for (int number = 0; number < 64; ++number) {
        const std::string name = "a logger whose name needs memory " + std::to_string(number);
        for (size_t goodAllocations = 0; !GetsLogger(name, goodAllocations); ++goodAllocations) {
            // What has been given back once stays with the thread, and counts as used.
            const size_t used = UsedMemory();
            EXPECT_FALSE(GetsLogger(name, goodAllocations));
            EXPECT_EQ(UsedMemory(), used) << number << ", " << goodAllocations;
            ++failures;
        }
    }
    EXPECT_GT(failures, 2U * 64U);
}

}  // namespace

}  // namespace kelto::core
