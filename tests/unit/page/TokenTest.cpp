#include "companions/page/Token.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace kelto::page {
namespace {

TEST(TokenTest, ItHas128BitsAsHexadecimalDigitsAndNoTwoAreTheSame) {
    std::set<std::string> tokens;
    for (int i = 0; i < 1'000; ++i) {
        const std::string made = MakeToken();
        EXPECT_EQ(made.size(), 32U);
        EXPECT_EQ(made.find_first_not_of("0123456789abcdef"), std::string::npos) << made;
        tokens.insert(made);
    }
    EXPECT_EQ(tokens.size(), 1'000U);
}

}  // namespace
}  // namespace kelto::page
