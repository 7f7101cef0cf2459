#include "kelto/core/StringBuilder.h"
#include "tests/fakes/FailingAllocation.h"

#include <gtest/gtest.h>

#include <new>
#include <string>

namespace kelto::core {

namespace {

TEST(StringBuilderMemory, APieceThatFindsNoRoomIsNotLeftOutInSilence) {
    const std::string piece(1000, 'x');
    StringBuilder builder;
    const test::FailingAllocation failing(0);
    EXPECT_THROW(builder.Append(piece), std::bad_alloc);
    EXPECT_TRUE(test::FailingAllocation::HasFailed());
}

}  // namespace

}  // namespace kelto::core
