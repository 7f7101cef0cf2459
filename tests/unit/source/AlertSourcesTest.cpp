#include "env/HalvekEnv.h"
#include "handler/ExternEventHandler.h"
#include "source/AlarmEventSource.h"
#include "source/AnalyticsEventSource.h"
#include "source/MsgBusEventSource.h"
#include "source/SourceFactory.h"
#include "tests/fakes/RecordingHandler.h"
#include "tests/fakes/ScriptedService.h"
#include "tests/support/Fifo.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"
#include "tests/support/PrivateBus.h"
#include "tests/support/ProcessState.h"
#include "tests/support/WaitUntil.h"

#include <future>
#include <memory>
#include <stdexcept>
#include <vector>

namespace kelto::halvek::source {

namespace {

using namespace std::chrono_literals;
using test::AlertSignal;
using test::ScriptedService;
using ::testing::Gt;

constexpr const char* announcement = "send Analytics Event, for possible Handler";

struct MsgBusKind {
    using Source = MsgBusEventSource;
    static constexpr const char* type = "MsgBus";
    static constexpr const char* logger = "MsgBusEventSource";
    static constexpr const char* event = "{Event: MsgBusEvent}";
    /** Whether it tells before it fires. */
    static constexpr bool announces = false;
};

struct AnalyticsKind {
    using Source = AnalyticsEventSource;
    static constexpr const char* type = "Analytics";
    static constexpr const char* logger = "AnalyticsEventSource";
    static constexpr const char* event = "{Event: AnalyticsEvent}";
    static constexpr bool announces = true;
};

/** One of the two sources of alerts on a real bus. */
template <typename Kind>
class AlertSource : public ::testing::Test {
protected:
    AlertSource() { source->AddHandler(&handler); }

    std::string Line(const std::string& level, const std::string& text) const {
        return level + " " + Kind::logger + ": " + text;
    }

    const test::PrivateBus daemon;
    test::LogCapture log;
    ScriptedService analytics{""};
    test::RecordingHandler handler;
    HalvekEnv env;
    std::unique_ptr<typename Kind::Source> source = std::make_unique<typename Kind::Source>(Kind::type, &env);
};

using Kinds = ::testing::Types<MsgBusKind, AnalyticsKind>;
TYPED_TEST_SUITE(AlertSource, Kinds);

TYPED_TEST(AlertSource, NeedsAnEnvironment) {
    EXPECT_THAT([] { typename TypeParam::Source(TypeParam::type, nullptr); }, FailsWith("Parameter pEnv was NULL"));
}

TYPED_TEST(AlertSource, IsMadeByTheFactoryUnderItsTypeName) {
    const std::unique_ptr<EventSource> made = CreateEventSource(TypeParam::type, &this->env);
    EXPECT_NE(dynamic_cast<typename TypeParam::Source*>(made.get()), nullptr);
    EXPECT_EQ(made->ToString(), std::string("EventSource{") + TypeParam::type + "}");
    EXPECT_TRUE(made->IsConfigured());
}

TYPED_TEST(AlertSource, IsSubscribedFromItsConstructionOn) {
    this->env.StartMsgBus();
    EXPECT_EQ(this->daemon.CountMatchRules("interface='com.zentu.analytics',member='AnalyticsAlert'"), 1U);
    this->analytics.Emit(AlertSignal("unconfigured, not started"));
    EXPECT_TRUE(this->handler.WaitForCount(1));
}

TYPED_TEST(AlertSource, ConfiguringItDoesNothingAtAll) {
    this->log.Clear();
    this->source->Configure({{"Index", "nonsense"}});
    EXPECT_EQ(this->log.Text(), "");
}

TYPED_TEST(AlertSource, StartingItOnlySaysSo) {
    this->log.Clear();
    this->source->StartListening();
    EXPECT_THAT(this->log.Lines(), ElementsAre(this->Line("Information", std::string(TypeParam::logger) + " started")));
}

TYPED_TEST(AlertSource, AnAlertFiresAnEventWithAllItsFields) {
    this->env.StartMsgBus();
    this->log.Clear();
    test::BusSignal alert = AlertSignal("Line%201");
    alert.arguments[4] = std::string("over%20the%2Fline+");
    alert.arguments[8] = std::string("http://camera/a%20b");
    this->analytics.Emit(alert);
    ASSERT_TRUE(this->handler.WaitForCount(1));
    const test::ReceivedEvent event = this->handler.Events().front();
    EXPECT_EQ(event.kind, TypeParam::event);
    EXPECT_EQ(event.priority, 0);
    EXPECT_THAT(
        event.properties,
        UnorderedElementsAre(Pair("eventType", "AnalyticsAlert"), Pair("source", "camera1"), Pair("class", "person"),
                             Pair("analyticsType", "LineCross"), Pair("ruleName", "Line 1"),
                             Pair("ruleDescription", "over the/line+"), Pair("rulePoints", "(0,0)|(1,0.5)"),
                             Pair("boxPoints", ""), Pair("mediaType", "jpeg"), Pair("mediaUrl", "http://camera/a%20b"),
                             Key("Timestamp"), Key("FormattedTime")));
    std::vector<std::string> expected = {this->Line("Information", "Received AnalyticsAlert")};
    if (TypeParam::announces) {
        expected.push_back(this->Line("Information", announcement));
    }
    expected.emplace_back("Trace halvek: \tEventSource::Firing Event");
    expected.emplace_back("Trace halvek: \tEventSource::FireEvent Firing Event in the handlers list");
    EXPECT_EQ(this->log.Lines(), expected);
}

TYPED_TEST(AlertSource, AnybodyMayRaiseAnAlertAlsoOneAddressedToThisProcess) {
    this->env.StartMsgBus();
    ScriptedService other("AlarmV3");
    test::BusSignal fromElsewhere = AlertSignal("broadcast");
    fromElsewhere.path = "/any/where";
    other.Emit(fromElsewhere);
    ASSERT_TRUE(this->handler.WaitForCount(1));
    for (const std::string& name : this->daemon.UniqueNames()) {
        test::BusSignal addressed = AlertSignal("addressed");
        addressed.destination = name;
        other.Emit(addressed);
    }
    EXPECT_TRUE(this->handler.WaitForCount(2));
}

TYPED_TEST(AlertSource, AnAlertThatDoesNotDecodeFiresNothingAndTheNextOneDoes) {
    this->env.StartMsgBus();
    this->log.Clear();
    test::BusSignal malformed = AlertSignal("malformed");
    malformed.arguments.pop_back();
    this->analytics.Emit({malformed, AlertSignal("well-formed")});
    ASSERT_TRUE(this->handler.WaitForCount(1));
    EXPECT_EQ(this->handler.Events().front().properties.at("ruleName"), "well-formed");
    EXPECT_EQ(this->log.Count(this->Line("Information", "Received AnalyticsAlert")), 2U);
    EXPECT_EQ(this->log.Count(this->Line("Information", announcement)), TypeParam::announces ? 1U : 0U);
    EXPECT_TRUE(
        this->log.Has("Error kelto.msgbus: Message com.zentu.analytics.AnalyticsAlert has arguments "
                      "\"sssssa(dd)a(dd)s\" instead of \"sssssa(dd)a(dd)ss\""));
}

std::string GivenUp(int count) {
    return "Warning kelto.msgbus: " + std::to_string(count) + " alerts of more than 60000 bytes were given up";
}

TYPED_TEST(AlertSource, AnAlertThatIsTooLargeForAnEventIsGivenUpWithAWarningAndTheNextOneFires) {
    this->env.StartMsgBus();
    this->log.Clear();
    this->analytics.Emit({AlertSignal(std::string(100000, 'x')), AlertSignal("small")});
    ASSERT_TRUE(this->handler.WaitForCount(1));
    EXPECT_EQ(this->handler.Events().front().properties.at("ruleName"), "small");
    EXPECT_EQ(this->log.Count(this->Line("Information", "Received AnalyticsAlert")), 2U);
    EXPECT_EQ(this->log.Count(this->Line("Information", announcement)), TypeParam::announces ? 1U : 0U);
    EXPECT_EQ(this->log.Count(GivenUp(1)), 1U);
}

TYPED_TEST(AlertSource, ManyOfThemAreToldByOneWarningAtOnceAndOneAtTheStop) {
    this->env.StartMsgBus();
    this->analytics.Emit(std::vector(50, AlertSignal(std::string(60000, 'x'))));
    EXPECT_TRUE(this->log.WaitFor(this->Line("Information", "Received AnalyticsAlert"), 50));
    this->source->StopListening();
    EXPECT_EQ(this->log.Count(GivenUp(1)), 1U);
    EXPECT_EQ(this->log.Count(GivenUp(49)), 1U);
    EXPECT_EQ(this->handler.Count(), 0U);
}

TYPED_TEST(AlertSource, TheLargestAlertThatFiresFitsIntoAnEmptyPipe) {
    constexpr size_t otherKeysAndValues = 166;
    const test::Fifo pipe("/var/run/halvek/AnalyticsAlert.fifo");
    handler::ExternEventHandler forwarder;
    this->source->AddHandler(&forwarder);
    this->env.StartMsgBus();
    this->analytics.Emit({AlertSignal(std::string(60001 - otherKeysAndValues, 'x')),
                          AlertSignal(std::string(60000 - otherKeysAndValues, 'x'))});
    EXPECT_TRUE(this->log.WaitFor("Debug halvek: ExternEventHandler: External Event fired!"));
    this->source->StopListening();
    EXPECT_EQ(this->handler.Count(), 1U);
    EXPECT_EQ(this->log.Count(GivenUp(1)), 1U);
    EXPECT_THAT(pipe.CountWaiting(), AllOf(Gt(60000U), Lt(65536U)));
}

TYPED_TEST(AlertSource, WhatAHandlerThrowsCostsTheOthersTheEventAndTheBusGoesOn) {
    test::RecordingHandler throwing([](Event&) { throw std::runtime_error("handler"); });
    test::RecordingHandler behind;
    this->source->AddHandler(&throwing);
    this->source->AddHandler(&behind);
    this->env.StartMsgBus();
    this->analytics.Emit({AlertSignal("one"), AlertSignal("two")});
    ASSERT_TRUE(throwing.WaitForCount(2));
    EXPECT_EQ(this->handler.Count(), 2U);
    EXPECT_EQ(behind.Count(), 0U);
    EXPECT_TRUE(this->log.WaitFor("Error kelto.msgbus: handler", 2));
    this->source->StopListening();
}

TYPED_TEST(AlertSource, AHandlerThatIsNotConfiguredThrowsBeforeItsActionAndTheBusGoesOn) {
    this->handler.SetConfigured(false);
    this->env.StartMsgBus();
    this->analytics.Emit({AlertSignal("one"), AlertSignal("two")});
    EXPECT_TRUE(this->log.WaitFor("Error kelto.msgbus: EventHandler: not configured", 2));
    EXPECT_EQ(this->handler.Count(), 0U);
}

TYPED_TEST(AlertSource, StoppedTwiceItUnsubscribesOnceAndOnlyLogsTheSecondTime) {
    this->env.StartMsgBus();
    this->log.Clear();
    this->source->StopListening();
    const std::string stopped = this->Line("Information", std::string(TypeParam::logger) + " stopped");
    EXPECT_THAT(this->log.Lines(), ElementsAre(stopped));
    EXPECT_TRUE(test::WaitUntil([&] { return this->daemon.MatchRules().empty(); }));
    this->source->StopListening();
    EXPECT_THAT(this->log.Lines(), ElementsAre(stopped, stopped));
}

TYPED_TEST(AlertSource, OnceStoppedItStaysSilentAndNeverSubscribesAgain) {
    this->env.StartMsgBus();
    this->source->StopListening();
    this->source->StartListening();
    this->source->Configure({});
    this->env.StartMsgBus();
    test::RecordingHandler marker;
    typename TypeParam::Source other(TypeParam::type, &this->env);
    other.AddHandler(&marker);
    this->analytics.Emit(AlertSignal("after the stop"));
    ASSERT_TRUE(marker.WaitForCount(1));
    EXPECT_EQ(this->handler.Count(), 0U);
}

TYPED_TEST(AlertSource, DestroyingItUnsubscribesWithoutAWord) {
    this->env.StartMsgBus();
    const size_t threads = test::CountThreads();
    this->log.Clear();
    this->source.reset();
    EXPECT_TRUE(test::WaitUntil([&] { return test::CountThreads() == threads - 1; }));
    EXPECT_EQ(this->log.Text(), "");
    EXPECT_TRUE(test::WaitUntil([&] { return this->daemon.MatchRules().empty(); }));
}

TYPED_TEST(AlertSource, StoppingWaitsForADeliveryInProgress) {
    std::promise<void> gate;
    std::atomic<bool> inside = false;
    test::RecordingHandler slow([&, opened = gate.get_future().share()](Event&) {
        inside = true;
        opened.wait();
        inside = false;
    });
    this->source->AddHandler(&slow);
    this->env.StartMsgBus();
    this->analytics.Emit(AlertSignal("slow"));
    ASSERT_TRUE(slow.WaitForCount(1));
    std::future<bool> stopped = std::async(std::launch::async, [&] {
        this->source->StopListening();
        return inside.load();
    });
    EXPECT_EQ(stopped.wait_for(100ms), std::future_status::timeout);
    gate.set_value();
    EXPECT_FALSE(stopped.get());
}

/** Sources of different kinds on one bus. */
class BusSources : public ::testing::Test {
protected:
    const test::PrivateBus daemon;
    test::LogCapture log;
    ScriptedService alarm{"AlarmV3"};
    test::RecordingHandler handler;
    HalvekEnv env;
};

TEST_F(BusSources, TheirTypeNamesInAnotherCaseAreUnknownToTheFactory) {
    for (const std::string name : {"alarm", "park", "Msgbus", "msgbus", "analytics", "Park "}) {
        EXPECT_EQ(CreateEventSource(name, &env), nullptr);
        EXPECT_TRUE(log.Has("Warning halvek: \tUnknown EventSource: " + name));
    }
}

TEST_F(BusSources, WithBothSourcesOneAlertFiresOnceThroughEach) {
    MsgBusEventSource first("MsgBus", &env);
    AnalyticsEventSource second("Analytics", &env);
    first.AddHandler(&handler);
    second.AddHandler(&handler);
    env.StartMsgBus();
    EXPECT_EQ(daemon.CountMatchRules("com.zentu.analytics"), 1U);
    alarm.Emit(AlertSignal("rule"));
    ASSERT_TRUE(handler.WaitForCount(2));
    std::vector<std::string> kinds;
    for (const test::ReceivedEvent& event : handler.Events()) {
        kinds.push_back(event.kind);
        EXPECT_EQ(event.properties.at("eventType"), "AnalyticsAlert");
        EXPECT_EQ(event.properties.at("ruleName"), "rule");
    }
    EXPECT_THAT(kinds, UnorderedElementsAre("{Event: MsgBusEvent}", "{Event: AnalyticsEvent}"));
}

TEST_F(BusSources, TwoAlarmSourcesDoNotDelayEachOther) {
    std::promise<void> gate;
    test::RecordingHandler blocked([opened = gate.get_future().share()](Event&) { opened.wait(); });
    AlarmEventSource first("Alarm", &env);
    AlarmEventSource second("Alarm", &env);
    first.Configure({{"BankName", "Local"}});
    second.Configure({{"BankName", "Local"}});
    first.AddHandler(&blocked);
    second.AddHandler(&handler);
    env.StartMsgBus();
    for (int round = 0; round < 5; ++round) {
        alarm.Emit(test::ProviderSignal("AlarmV3", "StateChanged", {std::string("Local"), 0, round % 2 == 0}));
    }
    EXPECT_TRUE(handler.WaitForCount(5));
    EXPECT_TRUE(blocked.WaitForCount(1));
    EXPECT_EQ(blocked.Count(), 1U);
    gate.set_value();
    EXPECT_TRUE(blocked.WaitForCount(5));
    first.StopListening();
}

TEST_F(BusSources, WhatAHandlerOfAnAlarmThrowsIsLoggedByTheBusWhichGoesOn) {
    AlarmEventSource source("Alarm", &env);
    source.Configure({{"BankName", "Local"}});
    handler.SetConfigured(false);
    source.AddHandler(&handler);
    env.StartMsgBus();
    const test::BusSignal change = test::ProviderSignal("AlarmV3", "StateChanged", {std::string("Local"), 0, true});
    alarm.Emit({change, change});
    EXPECT_TRUE(log.WaitFor("Error kelto.msgbus: EventHandler: not configured", 2));
    EXPECT_EQ(log.Count("Information halvek: firing"), 2U);
}

}  // namespace

}  // namespace kelto::halvek::source
