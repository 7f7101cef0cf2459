#include "tests/support/FreshProcess.h"

#include <gmock/gmock.h>

#include <iostream>

namespace kelto::test {

namespace {

/** In such a process the framework itself prints nothing. */
void PrintFailures() {
    const testing::TestResult& result = *testing::UnitTest::GetInstance()->current_test_info()->result();
    for (int number = 0; number < result.total_part_count(); ++number) {
        const testing::TestPartResult& part = result.GetTestPartResult(number);
        std::cerr << part.file_name() << ":" << part.line_number() << ": " << part.message() << std::endl;
    }
}

}  // namespace

void ExpectInFreshProcess(const std::function<void()>& body) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto runAndTell = [&] {
        body();
        PrintFailures();
        std::_Exit(testing::Test::HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(runAndTell(), testing::ExitedWithCode(0), "");
}

}  // namespace kelto::test
