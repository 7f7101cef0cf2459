#include "tests/support/Descriptors.h"
#include "tests/support/Matchers.h"
#include "tests/support/ProcessState.h"
#include "tests/support/WaitUntil.h"
#include "tests/unit/platform/msgbus/MsgBusFixture.h"

#include <future>

namespace kelto::msgbus {

namespace {

using test::BusSignal;
using test::ScriptedService;

const MessageFilter refused{.name = "no name", .domain = "com.zentu.test", .sender = "", .path = ""};

TEST_F(MsgBusTest, ASignalOfTheNameAndDomainIsDeliveredAsAPlainValue) {
    bus.Subscribe(anybody, &heard);
    bus.Start();
    speaker.Emit(Said("hello"));
    ASSERT_TRUE(heard.WaitForCount(1));
    const MsgBusMsg message = heard.Messages().front();
    EXPECT_EQ(message.name, "Said");
    EXPECT_EQ(message.domain, "com.zentu.test");
    EXPECT_EQ(message.signature, "s");
    EXPECT_GE(message.size, sizeof(MsgBusMsg) + sizeof("hello"));
    EXPECT_EQ(std::get<std::string>(message.arguments.at(0).content), "hello");
}

TEST_F(MsgBusTest, ASignalOfAnotherNameOrDomainIsNot) {
    bus.Subscribe(anybody, &heard);
    bus.Start();
    BusSignal otherName = Said("other name");
    otherName.member = "Sung";
    BusSignal otherDomain = Said("other domain");
    otherDomain.interface = "com.zentu.testing";
    speaker.Emit({otherName, otherDomain, Said("this")});
    ASSERT_TRUE(heard.WaitForCount(1));
    EXPECT_THAT(heard.Texts(), ElementsAre("this"));
}

TEST_F(MsgBusTest, NothingIsDeliveredBeforeTheStart) {
    bus.Subscribe(anybody, &heard);
    speaker.Emit(Said("early"));
    bus.Start();
    speaker.Emit(Said("late"));
    ASSERT_TRUE(heard.WaitForCount(1));
    EXPECT_THAT(heard.Texts(), ElementsAre("late"));
}

TEST_F(MsgBusTest, SignalsComeInTheirOrder) {
    bus.Subscribe(anybody, &heard);
    bus.Start();
    speaker.Emit(SaidNumbers(1000));
    ASSERT_TRUE(heard.WaitForCount(1000));
    const std::vector<std::string> texts = heard.Texts();
    for (size_t number = 0; number < texts.size(); ++number) {
        ASSERT_EQ(texts[number], std::to_string(number));
    }
}

TEST_F(MsgBusTest, WhatIsSaidRightAfterTheStartIsHeardTwoHundredTimes) {
    for (int round = 0; round < 200; ++round) {
        HeardMessages hearing;
        MsgBus starting;
        starting.Subscribe(anybody, &hearing);
        starting.Subscribe(owner, &hearing);
        starting.Start();
        speaker.Emit({Said("a"), Said("b", owner)});
        ASSERT_TRUE(hearing.WaitForCount(2)) << "round " << round;
    }
    EXPECT_EQ(log.Text(), "");
}

TEST_F(MsgBusTest, WhatIsSaidRightAfterASubscriptionOnARunningBusIsHeardTwoHundredTimes) {
    bus.Start();
    for (int round = 0; round < 200; ++round) {
        HeardMessages hearing;
        bus.Subscribe(owner, &hearing);
        speaker.Emit(Said("a", owner));
        ASSERT_TRUE(hearing.WaitForCount(1)) << "round " << round;
        bus.Unsubscribe(&hearing);
    }
    EXPECT_EQ(log.Text(), "");
}

TEST_F(MsgBusTest, ASecondStartDoesNothing) {
    bus.Subscribe(anybody, &heard);
    bus.Start();
    const size_t threads = test::CountThreads();
    const size_t descriptors = test::OpenDescriptors().size();
    bus.Start();
    bus.Start();
    speaker.Emit(Said("once"));
    HeardMessages marker;
    bus.Subscribe(anybody, &marker);
    speaker.Emit(Said("marker"));
    ASSERT_TRUE(marker.WaitForCount(1));
    ASSERT_TRUE(heard.WaitForCount(2));
    EXPECT_THAT(heard.Texts(), ElementsAre("once", "marker"));
    bus.Unsubscribe(&marker);
    EXPECT_TRUE(test::WaitUntil([&] { return test::CountThreads() == threads; }));
    EXPECT_EQ(test::OpenDescriptors().size(), descriptors);
}

TEST_F(MsgBusTest, OneMatchOnTheBusServesAllWhoWantTheSame) {
    HeardMessages second;
    HeardMessages third;
    bus.Subscribe(owner, &heard);
    bus.Start();
    bus.Subscribe(owner, &second);
    bus.Subscribe(owner, &third);
    EXPECT_EQ(daemon.CountMatchRules("com.kelto.Speaker"), 1U);
    EXPECT_THAT(daemon.MatchRules(), SizeIs(1));
    speaker.Emit(Said("to all", owner));
    for (const HeardMessages* each : {&heard, &second, &third}) {
        ASSERT_TRUE(each->WaitForCount(1));
    }
    bus.Unsubscribe(&heard);
    bus.Unsubscribe(&third);
    EXPECT_EQ(daemon.CountMatchRules("com.kelto.Speaker"), 1U);
    bus.Unsubscribe(&second);
    EXPECT_TRUE(test::WaitUntil([&] { return daemon.MatchRules().empty(); }));
}

TEST_F(MsgBusTest, NoMatchIsLeftOverHoweverQuicklySubscriptionsComeAndGo) {
    bus.Start();
    for (int round = 0; round < 100; ++round) {
        bus.Subscribe(owner, &heard);
        bus.Subscribe(anybody, &heard);
        bus.Unsubscribe(&heard);
    }
    EXPECT_TRUE(test::WaitUntil([&] { return daemon.MatchRules().empty(); }));
}

TEST_F(MsgBusTest, OnlyTheOwnerOfTheNameCountsWhereOneIsNamed) {
    bus.Subscribe(owner, &heard);
    bus.Start();
    ScriptedService impostor("");
    impostor.Emit(Said("impostor", owner));
    speaker.Emit(Said("owner", owner));
    ASSERT_TRUE(heard.WaitForCount(1));
    EXPECT_THAT(heard.Texts(), ElementsAre("owner"));
}

TEST_F(MsgBusTest, TheOwnerOfTheNameIsWhoeverOwnsItNow) {
    bus.Subscribe(owner, &heard);
    bus.Start();
    speaker.ReleaseName();
    speaker.Emit(Said("former owner", owner));
    ScriptedService successor("Speaker");
    successor.Emit(Said("successor", owner));
    ASSERT_TRUE(heard.WaitForCount(1));
    EXPECT_THAT(heard.Texts(), ElementsAre("successor"));
}

TEST_F(MsgBusTest, ASignalAddressedToThisProcessDoesNotCountWhereAnOwnerIsNamed) {
    bus.Subscribe(owner, &heard);
    bus.Start();
    ScriptedService impostor("");
    for (const std::string& name : daemon.UniqueNames()) {
        BusSignal addressed = Said("addressed", owner);
        addressed.destination = name;
        impostor.Emit(addressed);
        speaker.Emit(addressed);
    }
    speaker.Emit(Said("broadcast", owner));
    ASSERT_TRUE(heard.WaitForCount(1));
    EXPECT_THAT(heard.Texts(), ElementsAre("broadcast"));
}

TEST_F(MsgBusTest, ASignalAddressedToThisProcessCountsWhereAnybodyMaySpeak) {
    bus.Subscribe(anybody, &heard);
    bus.Start();
    ScriptedService other("");
    for (const std::string& name : daemon.UniqueNames()) {
        BusSignal addressed = Said("addressed");
        addressed.destination = name;
        other.Emit(addressed);
    }
    ASSERT_TRUE(heard.WaitForCount(1));
    other.Emit(Said("broadcast"));
    ASSERT_TRUE(heard.WaitForCount(2));
    EXPECT_THAT(heard.Texts(), ElementsAre("addressed", "broadcast"));
}

TEST_F(MsgBusTest, EachSubscriptionIsServedByAThreadOfItsOwn) {
    std::promise<void> gate;
    HeardMessages blocked([opened = gate.get_future().share()](const MsgBusMsg&) { opened.wait(); });
    bus.Subscribe(anybody, &blocked);
    bus.Subscribe(anybody, &heard);
    bus.Start();
    speaker.Emit(SaidNumbers(100));
    EXPECT_TRUE(heard.WaitForCount(100));
    EXPECT_TRUE(blocked.WaitForCount(1));
    EXPECT_EQ(blocked.Count(), 1U);
    gate.set_value();
    EXPECT_TRUE(blocked.WaitForCount(100));
    bus.Unsubscribe(&blocked);
}

TEST_F(MsgBusTest, AHandlerMayHaveSeveralSubscriptionsWhichEndTogether) {
    HeardMessages other;
    bus.Subscribe(anybody, &heard);
    bus.Subscribe(owner, &heard);
    bus.Subscribe(owner, &other);
    bus.Start();
    speaker.Emit({Said("one"), Said("two", owner)});
    ASSERT_TRUE(heard.WaitForCount(2));
    ASSERT_TRUE(other.WaitForCount(1));
    bus.Unsubscribe(&heard);
    speaker.Emit({Said("three"), Said("four", owner)});
    ASSERT_TRUE(other.WaitForCount(2));
    EXPECT_THAT(heard.Texts(), UnorderedElementsAre("one", "two"));
    bus.Unsubscribe(&other);
}

TEST_F(MsgBusTest, ASubscriptionThatTheBusRefusesIsAWarningAndTheOthersAreServed) {
    HeardMessages deaf;
    bus.Subscribe(refused, &deaf);
    bus.Subscribe(anybody, &heard);
    bus.Start();
    speaker.Emit(Said("hello"));
    ASSERT_TRUE(heard.WaitForCount(1));
    EXPECT_THAT(log.Text(), HasSubstr("Warning kelto.msgbus: The message bus refused a subscription: "
                                      "org.freedesktop.DBus.Error.MatchRuleInvalid: "));
    EXPECT_THAT(deaf.Texts(), IsEmpty());
}

TEST_F(MsgBusTest, WhatWasRefusedIsAskedForAgainAtEachNewSubscription) {
    HeardMessages deaf;
    bus.Start();
    for (size_t count = 1; count <= 100; ++count) {
        bus.Subscribe(refused, &deaf);
        ASSERT_TRUE(test::WaitUntil([&] { return log.Lines().size() == count; }));
        bus.Unsubscribe(&deaf);
    }
}

TEST_F(MsgBusTest, UnsubscribingAStrangerDoesNothing) {
    HeardMessages stranger;
    bus.Unsubscribe(&stranger);
    bus.Subscribe(anybody, &heard);
    bus.Start();
    bus.Unsubscribe(&stranger);
    speaker.Emit(Said("still here"));
    EXPECT_TRUE(heard.WaitForCount(1));
}

}  // namespace

}  // namespace kelto::msgbus
