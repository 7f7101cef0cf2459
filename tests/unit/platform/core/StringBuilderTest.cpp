#include "kelto/core/StringBuilder.h"

#include <gtest/gtest.h>

namespace kelto::core {

namespace {

TEST(StringBuilder, IsEmptyAtFirst) {
    EXPECT_EQ(StringBuilder().ToString(), "");
}

TEST(StringBuilder, PutsPiecesOneBehindTheOther) {
    StringBuilder builder;
    builder.Append("a").Append(std::string("b")).Append('c').Append("");
    EXPECT_EQ(builder.ToString(), "abc");
    EXPECT_EQ(builder.Append("d").ToString(), "abcd");
}

TEST(StringBuilder, HasNumbersInTheStandardStreamFormat) {
    StringBuilder builder;
    builder.Append(-12)
        .Append(' ')
        .Append(4294967295U)
        .Append(' ')
        .Append(0.5)
        .Append(' ')
        .Append(1e-7)
        .Append(' ')
        .Append(1.0 / 3);
    EXPECT_EQ(builder.ToString(), "-12 4294967295 0.5 1e-07 0.333333");
}

TEST(StringBuilder, KeepsNulBytes) {
    StringBuilder builder;
    builder.Append(std::string("a\0b", 3));
    EXPECT_EQ(builder.ToString(), std::string("a\0b", 3));
}

}  // namespace

}  // namespace kelto::core
