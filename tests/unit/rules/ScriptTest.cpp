#include "companions/rules/RuleFile.h"
#include "companions/rules/Script.h"
#include "companions/rules/ScriptRun.h"

#include <gmock/gmock.h>

#include <string>
#include <string_view>
#include <vector>

namespace kelto::companion::rules {

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/** The failures as "LINE: TEXT". */
std::vector<std::string> Failures(std::string_view rules, std::string_view script) {
    RuleFile read(ConfigFile("r", rules));
    EXPECT_THAT(read.findings, IsEmpty());
    ScriptRun run(std::move(read.rules));
    run.Run(Script::Parse("s", script));
    std::vector<std::string> failures;
    for (const ScriptRun::Failure& failure : run.Failures()) {
        failures.push_back(std::to_string(failure.line) + ": " + failure.text);
    }
    return failures;
}

constexpr const char* echo = "[Rule echo]\nWhen=A\nPost=P\nSet.x=${x}\nSet.type=${eventType}\n";

TEST(Script, WhatComesOutAsExpectedIsNoFailure) {
    EXPECT_THAT(
        Failures(echo, "# a comment\n\n+0 A x=1\n=> P x=1 rule=echo\n+0.5 B\n+1\n+0 A x=\"a b\"\n=> P x=\"a b\"\n"),
        IsEmpty());
}

TEST(Script, WhatDoesNotComeOutIsAFailureAndSoIsWhatComesOutUnasked) {
    EXPECT_THAT(Failures(echo, "+0 A x=1\n=> P x=2\n+1 B\n=> P\n"),
                ElementsAre("1: this came out, and is not expected: P x=1 type=A rule=echo ruleChain=echo",
                            "2: this did not come out: P x=2", "4: this did not come out: P"));
}

TEST(Script, ExpectationsOfOneLineMayStandInAnyOrder) {
    const std::string rules = "[Rule a]\nWhen=A\nPost=P\nSet.n=1\n[Rule b]\nWhen=A\nPost=P\nSet.n=2\n";
    EXPECT_THAT(Failures(rules, "+0 A\n=> P n=2\n=> P n=1\n"), IsEmpty());
    // The first one could take either.
    EXPECT_THAT(Failures(rules, "+0 A\n=> P\n=> P n=1\n"), IsEmpty());
    EXPECT_THAT(Failures(rules, "+0 A\n=> P n=1\n=> P n=1\n"), ::testing::SizeIs(2));
}

TEST(Script, WhatIsPostedComesBackAsAnEvent) {
    EXPECT_THAT(Failures("[Rule a]\nWhen=Ping\nPost=Pong\n[Rule b]\nWhen=Pong\nPost=Ping\n",
                         "+0 Ping\n=> Pong ruleChain=a\n=> Ping ruleChain=a,b\n"),
                IsEmpty());
}

TEST(Script, AnEventThatComesByThenHasCome) {
    const std::string rules = "[Rule r]\nWhen=A\nUnless=B\nAfter.sec=60\nPost=P\n";
    EXPECT_THAT(Failures(rules, "+0 A\n+60 B\n+100\n"), IsEmpty());
    EXPECT_THAT(Failures(rules, "+0 A\n+60\n=> P\n+0 B\n"), IsEmpty());
    EXPECT_THAT(Failures(rules, "+0 A\n+61 B\n=> P\n"), IsEmpty());
}

TEST(Script, TimePassesFromLineToLine) {
    EXPECT_THAT(Failures("[Rule r]\nWhen=A\nThen=B\nWithin.sec=10\nPost=P\n", "+0 A\n+8 A\n+4 B\n=> P\n"), IsEmpty());
}

TEST(Script, ARefusedPostIsAFailure) {
    EXPECT_THAT(Failures(echo, "+0 A x=" + std::string(5000, 'v') + "\n"), ElementsAre(HasSubstr("1: the rule echo")));
}

TEST(Script, ALineThatIsNoneIsAnErrorWithItsPlace) {
    for (const char* const line :
         {"A", "+x A", "+-1 A", "+ A", "+1 A word", "+1 A _x=1", "+1 A]", "+1 A x=\"1", "+1 A x=\"1\"2", "=> P word"}) {
        try {
            Script::Parse("s", std::string("+0 A\n") + line + "\n");
            FAIL() << line;
        } catch (const ScriptError& error) {
            EXPECT_THAT(error.what(), ::testing::StartsWith("s:2: ")) << line;
        }
    }
    EXPECT_THROW(Script::Parse("s", "=> P\n"), ScriptError);
}

}  // namespace

}  // namespace kelto::companion::rules
