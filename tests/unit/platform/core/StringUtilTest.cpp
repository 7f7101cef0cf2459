#include "kelto/core/StringUtil.h"
#include "tests/support/Matchers.h"

namespace kelto::core {

namespace {

TEST(StringUtil, SplitKeepsEmptyPieces) {
    EXPECT_THAT(StringUtil::Split("a,b", ','), ElementsAre("a", "b"));
    EXPECT_THAT(StringUtil::Split("a,,b", ','), ElementsAre("a", "", "b"));
    EXPECT_THAT(StringUtil::Split("a,", ','), ElementsAre("a", ""));
    EXPECT_THAT(StringUtil::Split(",a", ','), ElementsAre("", "a"));
    EXPECT_THAT(StringUtil::Split(",", ','), ElementsAre("", ""));
}

TEST(StringUtil, AnEmptyTextSplitsIntoOneEmptyPiece) {
    EXPECT_THAT(StringUtil::Split("", ','), ElementsAre(""));
}

TEST(StringUtil, SplitTrimsNothing) {
    EXPECT_THAT(StringUtil::Split(" a , b ", ','), ElementsAre(" a ", " b "));
    EXPECT_THAT(StringUtil::Split("alone", ','), ElementsAre("alone"));
}

TEST(StringUtil, SplitTakesAnyByteAsSeparator) {
    EXPECT_THAT(StringUtil::Split(std::string("a\0b", 3), '\0'), ElementsAre("a", "b"));
    EXPECT_THAT(StringUtil::Split("a\xffz", '\xff'), ElementsAre("a", "z"));
    EXPECT_THAT(StringUtil::Split(std::string(100000, ','), ','), SizeIs(100001));
}

TEST(StringUtil, SignedNumbers) {
    const std::pair<const char*, int32_t> table[] = {{"0", 0},
                                                     {"42", 42},
                                                     {"-42", -42},
                                                     {"0042", 42},
                                                     {"-0", 0},
                                                     {"2147483647", 2147483647},
                                                     {"-2147483648", -2147483647 - 1}};
    for (const auto& [text, expected] : table) {
        int32_t value = 77;
        EXPECT_TRUE(StringUtil::TryParse(text, value)) << text;
        EXPECT_EQ(value, expected) << text;
    }
}

TEST(StringUtil, WhatIsNoSignedNumberLeavesTheValueAlone) {
    for (const char* text : {"", "-", "+1", " 1", "1 ", "1x", "x1", "1.5", "0x1", "2147483648", "-2147483649", "--1"}) {
        int32_t value = 77;
        EXPECT_FALSE(StringUtil::TryParse(text, value)) << text;
        EXPECT_EQ(value, 77) << text;
    }
}

TEST(StringUtil, UnsignedNumbers) {
    const std::pair<const char*, uint32_t> table[] = {
        {"0", 0U}, {"42", 42U}, {"0042", 42U}, {"2147483648", 2147483648U}, {"4294967295", 4294967295U}};
    for (const auto& [text, expected] : table) {
        uint32_t value = 77;
        EXPECT_TRUE(StringUtil::TryParse(text, value)) << text;
        EXPECT_EQ(value, expected) << text;
    }
}

TEST(StringUtil, WhatIsNoUnsignedNumberLeavesTheValueAlone) {
    for (const char* text : {"", "-1", "-0", "+1", " 1", "1 ", "1k", "4294967296", "18446744073709551617"}) {
        uint32_t value = 77;
        EXPECT_FALSE(StringUtil::TryParse(text, value)) << text;
        EXPECT_EQ(value, 77U) << text;
    }
}

TEST(StringUtil, ReplaceTakesEveryOccurrenceFromLeftToRight) {
    EXPECT_EQ(StringUtil::Replace("a b c", " ", "\\ "), "a\\ b\\ c");
    EXPECT_EQ(StringUtil::Replace("aaa", "aa", "b"), "ba");
    EXPECT_EQ(StringUtil::Replace("abab", "ab", ""), "");
    EXPECT_EQ(StringUtil::Replace("text", "x", "xx"), "texxt");
    EXPECT_EQ(StringUtil::Replace("text", "y", "z"), "text");
    EXPECT_EQ(StringUtil::Replace("", "y", "z"), "");
}

TEST(StringUtil, ReplaceDoesNotLookAtWhatItPutInAndTakesNoEmptyText) {
    EXPECT_EQ(StringUtil::Replace("'", "'", "''"), "''");
    EXPECT_EQ(StringUtil::Replace("text", "", "z"), "text");
}

TEST(StringUtil, StartsWith) {
    EXPECT_TRUE(StringUtil::StartsWith("Events/Source#1", "Events/Source#"));
    EXPECT_TRUE(StringUtil::StartsWith("Events/Source#", "Events/Source#"));
    EXPECT_TRUE(StringUtil::StartsWith("", ""));
    EXPECT_TRUE(StringUtil::StartsWith("x", ""));
    EXPECT_FALSE(StringUtil::StartsWith("Events/Source", "Events/Source#"));
    EXPECT_FALSE(StringUtil::StartsWith("events/Source#1", "Events/Source#"));
    EXPECT_FALSE(StringUtil::StartsWith("", "x"));
}

TEST(StringUtil, PercentEscapesAreDecoded) {
    const std::pair<std::string, std::string> table[] = {
        {"Line%20crossed", "Line crossed"},
        {"%41%62%7A%7a", "Abzz"},
        {"%c3%A4", "\xc3\xa4"},
        {"%00", std::string(1, '\0')},
        {"%ff", "\xff"},
        {"%2541", "%41"},
        {"", ""},
    };
    for (const auto& [text, decoded] : table) {
        EXPECT_EQ(StringUtil::UrlDecode(text), decoded) << text;
    }
}

TEST(StringUtil, PlusAndMalformedEscapesStay) {
    for (const char* text : {"a+b", "%", "%%", "%4", "%4g", "%g4", "%-1", "%+1", "% 1", "%0x", "100% sure", "%u0041"}) {
        EXPECT_EQ(StringUtil::UrlDecode(text), text);
    }
    EXPECT_EQ(StringUtil::UrlDecode("%%41"), "%A");
    EXPECT_EQ(StringUtil::UrlDecode("%4%41"), "%4A");
    EXPECT_EQ(StringUtil::UrlDecode(std::string_view("%41", 2)), "%4");
}

}  // namespace

}  // namespace kelto::core
