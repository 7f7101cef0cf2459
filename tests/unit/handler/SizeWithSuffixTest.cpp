#include "handler/SizeWithSuffix.h"

#include <gtest/gtest.h>

namespace kelto::halvek::handler {

namespace {

TEST(SizeWithSuffix, IsANumberTimesAPowerOf1024) {
    EXPECT_EQ(ParseSizeWithSuffix("10k"), 10240U);
    EXPECT_EQ(ParseSizeWithSuffix("2M"), 2097152U);
    EXPECT_EQ(ParseSizeWithSuffix("1g"), 1073741824U);
    EXPECT_EQ(ParseSizeWithSuffix("1t"), 1099511627776U);
    EXPECT_EQ(ParseSizeWithSuffix("4G"), 4294967296U);
    EXPECT_EQ(ParseSizeWithSuffix("2147483647k"), 2199023254528U);
}

TEST(SizeWithSuffix, UpperAndLowerCaseMeanTheSame) {
    for (const char* unit : {"k", "m", "g", "t"}) {
        const std::string lower = std::string("3") + unit;
        const std::string upper = std::string("3") + static_cast<char>(*unit - 'a' + 'A');
        EXPECT_EQ(ParseSizeWithSuffix(lower), ParseSizeWithSuffix(upper)) << lower;
        EXPECT_NE(ParseSizeWithSuffix(lower), 0U) << lower;
    }
}

TEST(SizeWithSuffix, IsMeantToBeZeroForFractionsAndForUnitsOfMoreThanALetter) {
    for (const char* text : {"1.5G", "10kB", "10kb", "10KiB", "10kk", "10k ", "1k5"}) {
        EXPECT_EQ(ParseSizeWithSuffix(text), 0U) << text;
    }
}

TEST(SizeWithSuffix, IsZeroForEverythingThatIsNoNumberWithAUnit) {
    for (const char* text : {"",   "0",     "0k",   "05k",         "00t",          "7",    "1000000", "k",
                             "M",  " 5k",   "5 k",  "+5k",         "-5k",          "-5",   "x",       "5x",
                             "xk", "0x10k", "5e3k", "2147483648k", "-2147483649k", "\xff", "\xffk"}) {
        EXPECT_EQ(ParseSizeWithSuffix(text), 0U) << text;
    }
}

TEST(SizeWithSuffix, WrapsAt64Bits) {
    EXPECT_EQ(ParseSizeWithSuffix("16777215t"), 16777215U * (uint64_t{1} << 40U));
    EXPECT_EQ(ParseSizeWithSuffix("16777216t"), 0U);
    EXPECT_EQ(ParseSizeWithSuffix("16777217t"), uint64_t{1} << 40U);
}

}  // namespace

}  // namespace kelto::halvek::handler
