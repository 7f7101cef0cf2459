#include "companions/rules/Engine.h"
#include "companions/rules/RuleFile.h"

#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

namespace kelto::companion::rules {

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using Properties = ReceivedEvent::Properties;

std::vector<Rule> RulesOf(std::string_view text) {
    RuleFile read(ConfigFile("rules.conf", text));
    EXPECT_TRUE(read.findings.empty()) << read.findings.front().text;
    return std::move(read.rules);
}

class EngineTest : public ::testing::Test, private Engine::Outlet {
protected:
    using Milliseconds = Engine::Milliseconds;

    void Use(std::string_view text) { engine.SetRules(RulesOf(text)); }

    /** An event at that second. What was due before comes first. */
    void At(double second, const char* type, const Properties& properties = {}) {
        const Milliseconds now(static_cast<int64_t>(second * 1000));
        engine.Expire(now - Milliseconds(1));
        ReceivedEvent event;
        event.type = type;
        event.properties = properties;
        engine.Take(event, now);
    }

    void Until(double second) { engine.Expire(Milliseconds(static_cast<int64_t>(second * 1000))); }

    /** What has been posted since it was asked last. */
    std::vector<std::string> Posts() { return std::exchange(posts, {}); }

    bool isOutletOpen = true;
    std::vector<std::string> posts;
    std::vector<std::string> refusals;
    Engine engine{*this};

private:
    bool Post(const Rule& /*rule*/, const PostedEvent& /*event*/, const std::string& block) override {
        if (isOutletOpen) {
            posts.push_back(block);
        }
        return isOutletOpen;
    }

    void Refuse(const Rule& rule, const std::string& why) override { refusals.push_back(rule.name + ": " + why); }
};

TEST_F(EngineTest, ARulePostsAtEveryEventThatItMeans) {
    Use("[Rule r]\nWhen=Alarm\nWhere.index=2\nWhere.state=!0\nPost=Opened\n"
        "Set.text=input ${index} of ${bank}${none}\n");
    At(0, "Alarm", {{"index", "2"}, {"state", "1"}, {"bank", "Local"}});
    EXPECT_THAT(Posts(), ElementsAre("[Opened]\ntext=input 2 of Local\nrule=r\nruleChain=r\n.\n"));
    At(1, "Alarm", {{"index", "2"}, {"state", "0"}});
    At(1, "Alarm", {{"index", "3"}, {"state", "1"}});
    At(1, "alarm", {{"index", "2"}, {"state", "1"}});
    EXPECT_THAT(Posts(), IsEmpty());
}

TEST_F(EngineTest, ARuleHoldsOffAndTellsHowManyPostsItHeldBack) {
    Use("[Rule r]\nWhen=A\nHoldOff.sec=30\nPost=P\n");
    At(0, "A");
    EXPECT_THAT(Posts(), ElementsAre("[P]\nrule=r\nruleChain=r\n.\n"));
    At(1, "A");
    At(29.999, "A");
    EXPECT_THAT(Posts(), IsEmpty());
    At(30, "A");
    EXPECT_THAT(Posts(), ElementsAre("[P]\nrule=r\nruleChain=r\nsuppressed=2\n.\n"));
    At(90, "A");
    EXPECT_THAT(Posts(), ElementsAre(Not(HasSubstr("suppressed"))));
}

TEST_F(EngineTest, WhatWasHeldBackIsToldHoweverLateTheNextPostComes) {
    Use("[Rule r]\nWhen=A\nHoldOff.sec=30\nPost=P\n");
    At(0, "A");
    At(1, "A");
    Until(10000);
    EXPECT_EQ(engine.NextEnd(), std::nullopt);
    Posts();
    At(20000, "A");
    EXPECT_THAT(Posts(), ElementsAre(HasSubstr("suppressed=1\n")));
}

TEST_F(EngineTest, ARuleHoldsOffApartForEachValueOfSame) {
    Use("[Rule r]\nWhen=A\nHoldOff.sec=30\nSame=x,y\nPost=P\nSet.x=${x}\n");
    At(0, "A", {{"x", "1"}});
    At(1, "A", {{"x", "2"}});
    At(2, "A", {{"x", "1"}, {"y", ""}});
    At(3, "A", {{"x", "1"}});
    EXPECT_THAT(Posts(), SizeIs(3));
}

TEST_F(EngineTest, ACountPostsAtTheNthEventWithinItsTimeAndForgetsThem) {
    Use("[Rule r]\nWhen=A\nCount=3\nWithin.sec=60\nPost=P\nSet.n=${n}\n");
    At(0, "A", {{"n", "1"}});
    At(50, "A", {{"n", "2"}});
    At(61, "A", {{"n", "3"}});
    EXPECT_THAT(Posts(), IsEmpty());
    At(110, "A", {{"n", "4"}});
    EXPECT_THAT(Posts(), ElementsAre(HasSubstr("n=4\n")));
    At(111, "A");
    At(112, "A");
    EXPECT_THAT(Posts(), IsEmpty());
    At(113, "A");
    EXPECT_THAT(Posts(), SizeIs(1));
}

TEST_F(EngineTest, ASecondEventThatFollowsInTimePostsOnce) {
    Use("[Rule r]\nWhen=A\nThen=B\nThen.Where.ok=1\nWithin.sec=10\nPost=P\n");
    At(0, "A");
    At(8, "A");
    At(11, "B");
    EXPECT_THAT(Posts(), IsEmpty());
    At(12, "B", {{"ok", "1"}});
    EXPECT_THAT(Posts(), SizeIs(1));
    At(13, "B", {{"ok", "1"}});
    EXPECT_THAT(Posts(), IsEmpty());
    At(20, "A");
    At(30.001, "B", {{"ok", "1"}});
    EXPECT_THAT(Posts(), IsEmpty());
    At(40, "A");
    At(50, "B", {{"ok", "1"}});
    EXPECT_THAT(Posts(), SizeIs(1));
}

TEST_F(EngineTest, AnEventIsNeverBothOfOneWindow) {
    Use("[Rule r]\nWhen=A\nThen=A\nWithin.sec=10\nPost=P\n");
    At(0, "A");
    EXPECT_THAT(Posts(), IsEmpty());
    At(5, "A");
    EXPECT_THAT(Posts(), SizeIs(1));
    At(6, "A");
    EXPECT_THAT(Posts(), IsEmpty());
    At(7, "A");
    EXPECT_THAT(Posts(), SizeIs(1));
}

TEST_F(EngineTest, ASequenceTakesPropertiesOfItsSecondEventFirst) {
    Use("[Rule r]\nWhen=A\nThen=B\nWithin.sec=10\nPost=P\nSet.x=${x}\nSet.y=${y}\n");
    At(0, "A", {{"x", "first"}, {"y", "first"}, {"ruleChain", "a,b"}});
    At(1, "B", {{"x", "second"}, {"ruleChain", "b,c"}});
    EXPECT_THAT(Posts(), ElementsAre("[P]\nx=second\ny=first\nrule=r\nruleChain=a,b,c,r\n.\n"));
}

TEST_F(EngineTest, WhatFailsToComePostsWhenTheTimeIsOver) {
    Use("[Rule r]\nWhen=Alarm\nWhere.state=1\nUnless=Alarm\nUnless.Where.state=0\nAfter.sec=60\nPost=P\nSet.n=${n}\n");
    At(0, "Alarm", {{"state", "1"}, {"n", "1"}});
    At(40, "Alarm", {{"state", "1"}, {"n", "2"}});
    EXPECT_EQ(engine.NextEnd(), Milliseconds(60000));
    Until(59.999);
    EXPECT_THAT(Posts(), IsEmpty());
    Until(60);
    EXPECT_THAT(Posts(), ElementsAre("[P]\nn=1\nrule=r\nruleChain=r\n.\n"));
    Until(1000);
    EXPECT_THAT(Posts(), IsEmpty());
    At(1000, "Alarm", {{"state", "1"}});
    At(1060, "Alarm", {{"state", "0"}});
    Until(2000);
    EXPECT_THAT(Posts(), IsEmpty());
}

TEST_F(EngineTest, ASignOfLifeThatFailsToComeIsNoticed) {
    Use("[Rule r]\nWhen=Alive\nUnless=Alive\nAfter.sec=60\nPost=Dead\n");
    for (int second = 0; second <= 600; second += 50) {
        At(second, "Alive");
    }
    EXPECT_THAT(Posts(), IsEmpty());
    Until(660);
    EXPECT_THAT(Posts(), SizeIs(1));
}

TEST_F(EngineTest, NoRuleActsOnWhatItIsBehind) {
    Use("[Rule a]\nWhen=Ping\nPost=Pong\n[Rule b]\nWhen=Pong\nPost=Ping\n");
    At(0, "Ping");
    EXPECT_THAT(Posts(), ElementsAre("[Pong]\nrule=a\nruleChain=a\n.\n"));
    At(0, "Pong", {{"ruleChain", "a"}});
    EXPECT_THAT(Posts(), ElementsAre("[Ping]\nrule=b\nruleChain=a,b\n.\n"));
    At(0, "Ping", {{"ruleChain", "a,b"}});
    EXPECT_THAT(Posts(), IsEmpty());
    At(0, "Ping", {{"ruleChain", "aa,b"}});
    EXPECT_THAT(Posts(), SizeIs(1));
}

TEST_F(EngineTest, APostThatFailedHoldsNothingOff) {
    Use("[Rule r]\nWhen=A\nHoldOff.sec=30\nPost=P\n");
    isOutletOpen = false;
    At(0, "A");
    EXPECT_EQ(engine.GetCounts().dropped, 1);
    isOutletOpen = true;
    At(1, "A");
    EXPECT_THAT(Posts(), SizeIs(1));
}

TEST_F(EngineTest, APostOfMoreThan4096BytesIsRefusedWhole) {
    Use("[Rule r]\nWhen=A\nPost=P\nSet.x=${x}\n");
    const size_t others = std::string("[P]\nx=\nrule=r\nruleChain=r\n.\n").size();
    At(0, "A", {{"x", std::string(4096 - others, 'v')}});
    EXPECT_THAT(Posts(), ElementsAre(SizeIs(4096)));
    At(0, "A", {{"x", std::string(4097 - others, 'v')}});
    EXPECT_THAT(Posts(), IsEmpty());
    EXPECT_THAT(refusals, ElementsAre(HasSubstr("4097 bytes")));
}

TEST_F(EngineTest, ValuesThatWouldBreakTheBlockAreRefused) {
    Use("[Rule r]\nWhen=A\nPost=P\nSet.x=${x}\n");
    At(0, "A", {{"x", "1\n.\n[Forged]"}});
    EXPECT_THAT(Posts(), IsEmpty());
    EXPECT_THAT(refusals, ElementsAre(HasSubstr("line break")));
}

TEST_F(EngineTest, RulesThatStayKeepTheirWindowsAndOthersLoseThem) {
    const std::string first = "[Rule a]\nWhen=A\nHoldOff.sec=30\nPost=P\n";
    Use(first + "[Rule b]\nWhen=B\nHoldOff.sec=30\nPost=Q\n");
    At(0, "A");
    At(0, "B");
    Posts();
    Use("[Rule b]\nWhen=B\nHoldOff.sec=31\nPost=Q\n" + first);
    EXPECT_EQ(engine.OpenWindows(), 1);
    At(1, "A");
    At(1, "B");
    EXPECT_THAT(Posts(), ElementsAre(HasSubstr("[Q]")));
}

TEST_F(EngineTest, TheOldestOfMoreThanAThousandWindowsGivesWay) {
    Use("[Rule r]\nWhen=A\nThen=B\nWithin.sec=10000\nSame=id\nPost=P\n");
    for (int id = 0; id <= 1000; ++id) {
        At(id, "A", {{"id", std::to_string(id)}});
    }
    EXPECT_EQ(engine.OpenWindows(), 1000);
    EXPECT_EQ(engine.GivenWay(), 1);
    At(1001, "B", {{"id", "0"}});
    EXPECT_THAT(Posts(), IsEmpty());
    At(1001, "B", {{"id", "1"}});
    EXPECT_THAT(Posts(), SizeIs(1));
}

TEST_F(EngineTest, AChainOfAHostileEventCostsNoTimeWorthSpeakingOf) {
    Use("[Rule r]\nWhen=A\nThen=B\nWithin.sec=10\nPost=P\n");
    std::string chain;
    for (int name = 0; name < 12000; ++name) {
        chain += std::to_string(name) + ",";
    }
    At(0, "A", {{"ruleChain", chain}});
    At(1, "B", {{"ruleChain", "x" + chain}});
    EXPECT_THAT(refusals, SizeIs(1));
}

}  // namespace

}  // namespace kelto::companion::rules
