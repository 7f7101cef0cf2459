#include "companions/rules/Condition.h"
#include "companions/rules/Glob.h"

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>

namespace kelto::companion::rules {

namespace {

bool Holds(const char* condition, const std::string& value) {
    return Condition(condition).Holds(&value);
}

bool HoldsWithout(const char* condition) {
    return Condition(condition).Holds(nullptr);
}

TEST(Condition, ATextIsThatTextAndNoOther) {
    EXPECT_TRUE(Holds("Local", "Local"));
    EXPECT_FALSE(Holds("Local", "local"));
    EXPECT_FALSE(Holds("Local", "Local "));
    EXPECT_TRUE(Holds("", ""));
    EXPECT_FALSE(Holds("", "x"));
}

TEST(Condition, ABarStandsBetweenAlternatives) {
    EXPECT_TRUE(Holds("a|b", "a"));
    EXPECT_TRUE(Holds("a|b", "b"));
    EXPECT_FALSE(Holds("a|b", "a|b"));
    EXPECT_TRUE(Holds("a|", ""));
    EXPECT_TRUE(Holds("<1|>5|~x*", "7"));
    EXPECT_TRUE(Holds("<1|>5|~x*", "xy"));
    EXPECT_FALSE(Holds("<1|>5|~x*", "3"));
}

TEST(Condition, LessAndMoreCompareNumbers) {
    EXPECT_TRUE(Holds("<5", "4.99"));
    EXPECT_FALSE(Holds("<5", "5"));
    EXPECT_TRUE(Holds(">5", "10"));
    EXPECT_TRUE(Holds(">-1.5", "-1"));
    EXPECT_TRUE(Holds("<1e3", "+999"));
    EXPECT_FALSE(Holds("<5", "four"));
    EXPECT_FALSE(Holds("<5", ""));
    EXPECT_FALSE(Holds("<5", "4 "));
    EXPECT_FALSE(Holds("<5", "-inf"));
    EXPECT_FALSE(Holds("<5", "nan"));
    EXPECT_FALSE(Holds("<5", "+-4"));
}

TEST(Condition, AnExclamationMarkIsNoneOfAll) {
    EXPECT_FALSE(Holds("!x", "x"));
    EXPECT_TRUE(Holds("!x", "y"));
    EXPECT_FALSE(Holds("!a|b", "b"));
    EXPECT_TRUE(Holds("!a|b", "c"));
    EXPECT_FALSE(Holds("!<5", "4"));
    EXPECT_TRUE(Holds("!<5", "four"));
    EXPECT_FALSE(Holds("!~x*", "xy"));
}

TEST(Condition, OnlyAnExclamationMarkHoldsOnWhatIsAbsent) {
    EXPECT_FALSE(HoldsWithout(""));
    EXPECT_FALSE(HoldsWithout("x"));
    EXPECT_FALSE(HoldsWithout("~*"));
    EXPECT_FALSE(HoldsWithout("<5"));
    EXPECT_TRUE(HoldsWithout("!x"));
    EXPECT_TRUE(HoldsWithout("!"));
}

TEST(Condition, LessAndMoreWantANumber) {
    EXPECT_THROW(Condition("<"), std::invalid_argument);
    EXPECT_THROW(Condition("<x"), std::invalid_argument);
    EXPECT_THROW(Condition("a|>1x"), std::invalid_argument);
    EXPECT_THROW(Condition("!> 1"), std::invalid_argument);
}

TEST(Glob, StarsQuestionMarksAndSets) {
    EXPECT_TRUE(Glob::Matches("x*y", "xy"));
    EXPECT_TRUE(Glob::Matches("x*y", "x/.y y"));
    EXPECT_FALSE(Glob::Matches("x*y", "xyz"));
    EXPECT_TRUE(Glob::Matches("*", ""));
    EXPECT_TRUE(Glob::Matches("", ""));
    EXPECT_FALSE(Glob::Matches("", "x"));
    EXPECT_FALSE(Glob::Matches("?", ""));
    EXPECT_TRUE(Glob::Matches("a*b*c", "a-b-b-c"));
    EXPECT_FALSE(Glob::Matches("a*b*c", "a-c-b"));
    EXPECT_TRUE(Glob::Matches("[a-c][!a-c]", "bd"));
    EXPECT_FALSE(Glob::Matches("[a-c][!a-c]", "bb"));
    EXPECT_TRUE(Glob::Matches("[]!]", "]"));
    EXPECT_TRUE(Glob::Matches("[a-]", "-"));
    EXPECT_TRUE(Glob::Matches("a[b", "a[b"));
}

TEST(Glob, AQuestionMarkIsACharacterAndNoByte) {
    EXPECT_TRUE(Glob::Matches("T?r", "Tür"));
    EXPECT_TRUE(Glob::Matches("[ä-ü]", "ö"));
}

TEST(Glob, APatternOfManyStarsTakesNoTimeWorthSpeakingOf) {
    const std::string text(60000, 'a');
    EXPECT_FALSE(Glob::Matches("*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*b", text));
}

}  // namespace

}  // namespace kelto::companion::rules
