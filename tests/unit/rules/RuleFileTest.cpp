#include "companions/rules/RuleFile.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace kelto::companion::rules {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

/** As "LINE:COLUMN ID", each. */
std::vector<std::string> FindingsOf(std::string_view text) {
    std::vector<std::string> found;
    for (const RuleFinding& finding : RuleFile(ConfigFile("f", text)).findings) {
        EXPECT_FALSE(finding.text.empty());
        found.push_back(std::to_string(finding.place.line) + ":" + std::to_string(finding.place.column) + " " +
                        finding.id);
    }
    return found;
}

/** What is found in one line of a rule that is right otherwise; the line is the fourth. */
std::vector<std::string> FindingsOfLine(std::string_view line) {
    return FindingsOf("[Rule r]\nWhen=A\nPost=P\n" + std::string(line) + "\n");
}

TEST(RuleFile, ARuleIsReadWithAllThatStandsInIt) {
    const RuleFile file(ConfigFile("f",
                                   "[Rule sequence]\nWhen=A\nWhere.x=1\nThen=B\nThen.Where.y=2\nThen.Where.z=!3\n"
                                   "Within.sec=2.5\nHoldOff.sec=30\nSame=a, b\nPost=P\nSet.c=${x}-${y}\nSet.d=${x}\n"));
    ASSERT_THAT(file.findings, IsEmpty());
    ASSERT_THAT(file.rules, SizeIs(1));
    const Rule& rule = file.rules[0];
    EXPECT_EQ(rule.name, "sequence");
    EXPECT_EQ(rule.kind, Rule::Kind::Then);
    EXPECT_EQ(rule.when.type, "A");
    EXPECT_THAT(rule.when.where, SizeIs(1));
    EXPECT_EQ(rule.second.type, "B");
    EXPECT_THAT(rule.second.where, SizeIs(2));
    EXPECT_EQ(rule.span, Rule::Milliseconds(2500));
    EXPECT_EQ(rule.holdOff, Rule::Milliseconds(30000));
    EXPECT_THAT(rule.same, ElementsAre("a", "b"));
    EXPECT_THAT(rule.set, SizeIs(2));
    EXPECT_THAT(rule.taken, ElementsAre("x", "y"));
}

TEST(RuleFile, AFileWithoutRulesIsRight) {
    EXPECT_THAT(FindingsOf("; nothing yet\n"), IsEmpty());
}

TEST(RuleFile, EachFaultIsFoundWhereItStands) {
    EXPECT_THAT(FindingsOf("When=A\n[Rule r]\nWhen=A\nPost=P\nword\n"), ElementsAre("1:1 HK8001", "5:1 HK8001"));
    EXPECT_THAT(FindingsOf("[Rules]\nWhen=A\n"), ElementsAre("1:1 HK8002"));
    EXPECT_THAT(FindingsOf("[Rule]\nWhen=A\nPost=P\n[Rule a,b]\nWhen=A\nPost=P\n"),
                ElementsAre("1:1 HK8003", "4:1 HK8003"));
    EXPECT_THAT(FindingsOf("[Rule " + std::string(65, 'n') + "]\nWhen=A\nPost=P\n"), ElementsAre("1:1 HK8003"));
    EXPECT_THAT(FindingsOf("[Rule r]\nWhen=A\nPost=P\n[Rule r]\nWhen=B\nPost=Q\n"), ElementsAre("4:1 HK8004"));
    EXPECT_THAT(FindingsOf("[Rule r]\n"), ElementsAre("1:1 HK8007", "1:1 HK8008"));
    EXPECT_THAT(FindingsOf("[Rule r]\nWhen=\nPost=\n"), ElementsAre("2:6 HK8007", "3:6 HK8008"));
    EXPECT_THAT(FindingsOf("[Rule r]\nWhen=A\nPost=P${x}\n"), ElementsAre("3:6 HK8008"));
    EXPECT_THAT(FindingsOf("[Rule r]\nWhen=A\nPost=P]\n"), ElementsAre("3:6 HK8008"));
}

TEST(RuleFile, EachLineOfARuleIsLookedAt) {
    EXPECT_THAT(FindingsOfLine("HoldOf=3"), ElementsAre("4:1 HK8005"));
    EXPECT_THAT(FindingsOfLine("Where.=3"), ElementsAre("4:1 HK8005"));
    EXPECT_THAT(FindingsOfLine("When=B"), ElementsAre("4:1 HK8006"));
    EXPECT_THAT(FindingsOfLine("Count=0\nWithin.sec=1"), ElementsAre("4:7 HK8009"));
    EXPECT_THAT(FindingsOfLine("Count=3x\nWithin.sec=1"), ElementsAre("4:7 HK8009"));
    EXPECT_THAT(FindingsOfLine("Count=-1\nWithin.sec=1"), ElementsAre("4:7 HK8009"));
    EXPECT_THAT(FindingsOfLine("Count=10001\nWithin.sec=1"), ElementsAre("4:7 HK8009"));
    EXPECT_THAT(FindingsOfLine("HoldOff.sec=-1"), ElementsAre("4:13 HK8010"));
    EXPECT_THAT(FindingsOfLine("HoldOff.sec="), ElementsAre("4:13 HK8010"));
    EXPECT_THAT(FindingsOfLine("HoldOff.sec=1e99"), ElementsAre("4:13 HK8010"));
    EXPECT_THAT(FindingsOfLine("Where.a=<x"), ElementsAre("4:9 HK8011"));
    EXPECT_THAT(FindingsOfLine("Where.a=1|>"), ElementsAre("4:9 HK8011"));
    EXPECT_THAT(FindingsOfLine("Set.=x"), ElementsAre("4:1 HK8012"));
    EXPECT_THAT(FindingsOfLine("Set._x=x"), ElementsAre("4:1 HK8012"));
    EXPECT_THAT(FindingsOfLine("Set.ruleChain=x"), ElementsAre("4:1 HK8012"));
    EXPECT_THAT(FindingsOfLine("Set.eventId=x"), ElementsAre("4:1 HK8012"));
    EXPECT_THAT(FindingsOfLine("Set.x=${y"), ElementsAre("4:7 HK8012"));
    EXPECT_THAT(FindingsOfLine("Set.x=${}"), ElementsAre("4:7 HK8012"));
    EXPECT_THAT(FindingsOfLine("Same="), ElementsAre("4:6 HK8013"));
    EXPECT_THAT(FindingsOfLine("Same=a,a"), ElementsAre("4:6 HK8013"));
    EXPECT_THAT(FindingsOfLine("Set.x=\x1b"), ElementsAre("4:7 HK8014"));
    EXPECT_THAT(FindingsOfLine("Set.x=\xff"), ElementsAre("4:7 HK8014"));
}

TEST(RuleFile, WhatBelongsTogetherStandsTogether) {
    EXPECT_THAT(FindingsOfLine("Count=2"), ElementsAre("4:1 HK8015"));
    EXPECT_THAT(FindingsOfLine("Then=B"), ElementsAre("4:1 HK8015"));
    EXPECT_THAT(FindingsOfLine("Unless=B"), ElementsAre("4:1 HK8015"));
    EXPECT_THAT(FindingsOfLine("Within.sec=2"), ElementsAre("4:1 HK8015"));
    EXPECT_THAT(FindingsOfLine("After.sec=2"), ElementsAre("4:1 HK8015"));
    EXPECT_THAT(FindingsOfLine("Then.Where.x=2"), ElementsAre("1:1 HK8015"));
    EXPECT_THAT(FindingsOfLine("Count=2\nWithin.sec=2\nThen=B"), ElementsAre("1:1 HK8015"));
}

TEST(RuleFile, NoEventLeadsToATypeOfItsOwn) {
    EXPECT_THAT(FindingsOf("[Rule r]\nWhen=A\nPost=MotionDetection\nSet.region=${x}\n"), ElementsAre("4:1 HK8016"));
    EXPECT_THAT(FindingsOf("[Rule r]\nWhen=A\nPost=MotionDetection\nSet.region=2\n"), IsEmpty());
    EXPECT_THAT(FindingsOf("[Rule r]\nWhen=A\nPost=P\nSet.region=${x}\n"), IsEmpty());
}

TEST(RuleFile, WhatIsTooLargeWhateverTheEventIsFound) {
    EXPECT_THAT(FindingsOfLine("Set.x=" + std::string(4096, 'v')), ElementsAre("1:1 HK8017"));
}

}  // namespace

}  // namespace kelto::companion::rules
