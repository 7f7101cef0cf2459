#include "env/HandlerRegistry.h"
#include "kelto/core/IniFile.h"
#include "monitor/EventMonitor.h"
#include "tests/fakes/RecordingHandler.h"
#include "tests/fakes/ScriptedService.h"
#include "tests/support/Descriptors.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"
#include "tests/support/PrivateBus.h"
#include "tests/support/ProcessState.h"
#include "tests/support/WaitUntil.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kelto::halvek {

namespace {

using namespace std::chrono_literals;
using test::BusSignal;
using test::ProviderSignal;
using test::ScriptedService;
using Strings = std::vector<std::string>;

constexpr const char* timeOut = "org.freedesktop.DBus.Error.Timeout: Connection timed out";

BusSignal StateChanged(const std::string& bank, int32_t index) {
    return ProviderSignal("AlarmV3", "StateChanged", {bank, index, true});
}

/** The daemon's event monitor with all its sources and handlers on a bus with the camera's services. */
class BusMonitor : public ::testing::Test {
protected:
    BusMonitor() { StartServices(); }

    void StartServices() {
        alarm.emplace("AlarmV3");
        alarm->Answer("GetBankNames", {Strings{"Remote", "Local"}});
        alarm->Answer("IsRemote", {false});
        motion.emplace("MotionState");
        motion->Answer("GetIdleState", {1});
        relay.emplace("RelayV3");
        relay->Answer("GetBankNames", {Strings{"Local"}});
        relay->Answer("IsRemote", {false});
        relay->Answer("GetConfiguration", {true, false, 2, 100, 100, 1});
        relay->Answer("SetConfiguration", {true});
        relay->Answer("Activate", {true});
        tour.emplace("Tour");
        tour->Answer("Start", {});
    }

    void StopServices() {
        for (auto* const service : {&alarm, &motion, &relay, &tour}) {
            service->reset();
        }
    }

    void Configure(const core::IniFile::Groups& groups) {
        core::IniFile ini;
        for (const auto& [name, group] : groups) {
            ini.AddGroup(name) = group;
        }
        monitor->Configure(ini);
    }

    /** Two alarm inputs, two park sources and both sources of alerts; a relay on all of them, a tour on the last alarm.
     */
    static core::IniFile::Groups Camera() {
        return {{"Events/Source#1", {{"Type", "Alarm"}}},
                {"Events/Source#1/Alarm", {{"BankName", "Local"}, {"Index", "1"}}},
                {"Events/Source#2", {{"Type", "Alarm"}}},
                {"Events/Source#2/Alarm", {{"BankName", "Local"}, {"Index", "2"}}},
                {"Events/Source#3", {{"Type", "Park"}}},
                {"Events/Source#3/Park", {{"DwellTime.sec", "0"}}},
                {"Events/Source#4", {{"Type", "Analytics"}}},
                {"Events/Source#5", {{"Type", "Park"}}},
                {"Events/Handler#1", {{"Type", "Relay"}, {"BankName", "Local"}, {"Index", "1"}}},
                {"Events/Handler#1/SourceIds",
                 {{"1", "Events/Source#1"},
                  {"3", "Events/Source#3"},
                  {"4", "Events/Source#4"},
                  {"5", "Applications/halvek/MsgBus"}}},
                {"Events/Handler#2", {{"Type", "Tour"}, {"Id", "night"}}},
                {"Events/Handler#2/SourceIds", {{"1", "Events/Source#2"}}}};
    }

    /** How often a service was asked for a method. */
    static size_t CountCalls(const ScriptedService& service, const std::string& method) {
        size_t count = 0;
        for (const ScriptedService::Call& call : service.Calls()) {
            count += call.method == method ? 1 : 0;
        }
        return count;
    }

    /** Waits for so many calls of a method. */
    static bool WaitForCalls(const ScriptedService& service, const std::string& method, size_t count) {
        return test::WaitUntil([&] { return CountCalls(service, method) >= count; });
    }

    std::vector<std::string> ErrorLines() const {
        std::vector<std::string> lines = log.Lines();
        std::erase_if(lines, [](const std::string& line) { return line.rfind("Error ", 0) != 0; });
        return lines;
    }

    test::PrivateBus daemon;
    test::LogCapture log{core::LogLevel::Information};
    std::optional<ScriptedService> alarm;
    std::optional<ScriptedService> motion;
    std::optional<ScriptedService> relay;
    std::optional<ScriptedService> tour;
    HandlerRegistry registry;  // for a monitor with other types than the process's
    std::unique_ptr<EventMonitor> monitor = std::make_unique<EventMonitor>(&HandlerRegistry::Instance());
};

TEST_F(BusMonitor, EverySourceReachesItsHandlersServices) {
    Configure(Camera());
    alarm->Emit({StateChanged("Local", 1), StateChanged("Local", 2), StateChanged("Remote", 1)});
    EXPECT_TRUE(WaitForCalls(*relay, "Activate", 1));
    EXPECT_TRUE(WaitForCalls(*tour, "Start", 1));
    EXPECT_EQ(tour->Calls().front().arguments, (test::BusArguments{std::string("night"), 400}));
    motion->Emit(ProviderSignal("MotionState", "IdleChanged", {0}));
    EXPECT_TRUE(WaitForCalls(*relay, "Activate", 2));
    motion->Emit(test::AlertSignal("rule"));
    EXPECT_TRUE(WaitForCalls(*relay, "Activate", 4));
    EXPECT_EQ(relay->Calls().back().arguments, (test::BusArguments{std::string("Local"), 1, 2}));
    EXPECT_THAT(ErrorLines(), IsEmpty());
}

TEST_F(BusMonitor, OneMatchAProviderSurvivesReloadsHoweverManySources) {
    for (int round = 0; round < 5; ++round) {
        Configure(Camera());
        EXPECT_EQ(daemon.CountMatchRules("com.kelto.MotionState"), 1U);
        EXPECT_EQ(daemon.CountMatchRules("com.kelto.AlarmV3"), 1U);
        EXPECT_EQ(daemon.CountMatchRules("com.zentu.analytics"), 1U);
        EXPECT_EQ(daemon.CountMatchRules(""), 3U);
    }
}

TEST_F(BusMonitor, WhatIsSaidRightAfterAConfigurationIsHeard) {
    for (size_t round = 1; round <= 50; ++round) {
        Configure(Camera());
        alarm->Emit(StateChanged("Local", 2));
        ASSERT_TRUE(WaitForCalls(*tour, "Start", round)) << "round " << round;
    }
}

TEST_F(BusMonitor, TwoHundredReloadsInTheMiddleOfDeliveriesLeaveNothingBehind) {
    Configure(Camera());
    alarm->Emit(StateChanged("Local", 1));
    ASSERT_TRUE(WaitForCalls(*relay, "Activate", 1));
    const size_t threads = test::CountThreads();
    std::atomic<bool> going = true;
    std::jthread emitter([&] {
        while (going) {
            alarm->Emit({StateChanged("Local", 1), StateChanged("Local", 2), test::AlertSignal("rule")});
            motion->Emit({ProviderSignal("MotionState", "IdleChanged", {0})});
        }
    });
    for (int round = 0; round < 200; ++round) {
        Configure(Camera());
    }
    going = false;
    emitter.join();
    Configure(Camera());
    const size_t descriptors = test::OpenDescriptors().size();
    const size_t before = CountCalls(*tour, "Start");
    alarm->Emit(StateChanged("Local", 2));
    EXPECT_TRUE(WaitForCalls(*tour, "Start", before + 1));
    EXPECT_TRUE(test::WaitUntil([&] { return test::CountThreads() == threads; }));
    Configure(Camera());
    EXPECT_TRUE(test::WaitUntil([&] { return test::OpenDescriptors().size() <= descriptors; }));
    EXPECT_THAT(ErrorLines(), IsEmpty());
}

TEST_F(BusMonitor, StoppedItLeavesNoThreadNoDescriptorAndNoMatch) {
    Configure({});
    monitor.reset();
    ASSERT_TRUE(test::WaitUntil([] { return !test::HasThread("MsgBusListener"); }));
    const size_t threads = test::CountThreads();
    const size_t descriptors = test::OpenDescriptors().size();
    monitor = std::make_unique<EventMonitor>(&HandlerRegistry::Instance());
    Configure(Camera());
    alarm->Emit({StateChanged("Local", 1), StateChanged("Local", 2)});
    ASSERT_TRUE(WaitForCalls(*relay, "Activate", 1));
    monitor.reset();
    EXPECT_TRUE(test::WaitUntil([&] { return test::CountThreads() == threads; }));
    // Less or more the main thread's own connection for calls, which lasts as long as the thread.
    EXPECT_LE(test::OpenDescriptors().size(), descriptors + 1);
    EXPECT_TRUE(test::WaitUntil([&] { return daemon.MatchRules().empty(); }));
}

TEST_F(BusMonitor, ARelayServiceThatDoesNotAnswerDelaysItsOwnSourceOnly) {
    Configure(Camera());
    relay->Hold();
    alarm->Emit(StateChanged("Local", 1));
    ASSERT_TRUE(WaitForCalls(*relay, "GetConfiguration", 1));
    for (size_t count = 1; count <= 20; ++count) {
        alarm->Emit({StateChanged("Local", 2), StateChanged("Local", 1)});
        ASSERT_TRUE(WaitForCalls(*tour, "Start", count));
    }
    EXPECT_EQ(CountCalls(*relay, "GetConfiguration"), 1U);
    relay->Release();
    EXPECT_TRUE(WaitForCalls(*relay, "Activate", 21));
}

TEST_F(BusMonitor, AServiceThatHangsCostsAnActionFiveSecondsAndOneError) {
    Configure(Camera());
    relay->Hold();
    const auto untilItFails = test::TimeOf([&] {
        alarm->Emit(StateChanged("Local", 1));
        EXPECT_TRUE(log.WaitFor(std::string("Error halvek: ") + timeOut));
    });
    EXPECT_THAT(untilItFails, AllOf(Ge(4900ms), Lt(9s)));
    EXPECT_THAT(ErrorLines(), SizeIs(1));
    EXPECT_EQ(CountCalls(*relay, "Activate"), 0U);
}

TEST_F(BusMonitor, AServiceThatHangsCostsAConfigurationFiveSecondsAndOneWarning) {
    core::IniFile::Groups groups = Camera();
    groups["Events/Handler#1"].erase("BankName");
    relay->Hold();
    EXPECT_THAT(test::TimeOf([&] { Configure(groups); }), AllOf(Ge(4900ms), Lt(9s)));
    EXPECT_EQ(log.Count(std::string("Warning halvek: Error LoadHandlers: ") + timeOut), 1U);
    alarm->Emit(StateChanged("Local", 2));
    EXPECT_TRUE(WaitForCalls(*tour, "Start", 1)) << "the others are at work";
}

TEST_F(BusMonitor, WithoutABusAtTheStartItRunsAndComesAliveByItselfWhereNothingHadToBeAsked) {
    daemon.Kill();
    StopServices();
    core::IniFile::Groups groups = Camera();
    groups["Events/Source#6"] = {{"Type", "Alarm"}};
    Configure(groups);
    EXPECT_THAT(log.Lines(),
                Contains(StartsWith("Warning halvek: \tError LoadSources: Cannot open the message bus: ")));
    EXPECT_EQ(log.Count("Warning ParkEventSource: Failed when querying current idle state."), 2U);
    daemon.Start();
    StartServices();
    const auto isAlive = [&] {
        alarm->Emit({StateChanged("Local", 1), StateChanged("Local", 2)});
        return CountCalls(*relay, "Activate") > 0 && CountCalls(*tour, "Start") > 0;
    };
    EXPECT_TRUE(test::WaitUntil(isAlive, 10s));
}

TEST_F(BusMonitor, AfterTheBusHasBeenRestartedTheFirstRelayCallIsNotLost) {
    // The service notes a call before its answer has reached the handler: a bus killed in between is an error.
    static std::atomic<int> answeredCalls;
    answeredCalls = 0;
    constexpr HandlerRegistration afterTheRelay{
        "AfterTheRelay",
        [](HalvekEnv*) -> std::unique_ptr<EventHandler> {
            return std::make_unique<test::RecordingHandler>([](Event&) { ++answeredCalls; });
        },
        0};
    registry.Register(&afterTheRelay);
    for (const HandlerRegistration* const registration : HandlerRegistry::Instance().GetRegistrations()) {
        registry.Register(registration);
    }
    monitor = std::make_unique<EventMonitor>(&registry);
    core::IniFile::Groups groups = Camera();
    groups["Events/Handler#3"] = {{"Type", "AfterTheRelay"}};
    groups["Events/Handler#3/SourceIds"] = {{"1", "Events/Source#1"}};
    Configure(groups);
    for (int round = 1; round <= 5; ++round) {
        alarm->Emit(StateChanged("Local", 1));
        ASSERT_TRUE(test::WaitUntil([&] { return answeredCalls == round; }));
        daemon.Kill();
        StopServices();
        log.Clear();
        daemon.Start();
        StartServices();
        ASSERT_TRUE(log.WaitFor("Information kelto.msgbus: Connected to the message bus"));
        ASSERT_TRUE(test::WaitUntil([&] { return daemon.CountMatchRules("com.kelto.AlarmV3") == 1; }));
    }
    alarm->Emit(StateChanged("Local", 1));
    ASSERT_TRUE(WaitForCalls(*relay, "Activate", 1));
    EXPECT_EQ(CountCalls(*relay, "GetConfiguration"), 1U);
    EXPECT_THAT(ErrorLines(), IsEmpty());
}

TEST_F(BusMonitor, AServiceThatIsAwayCostsAnErrorAnEventUntilItIsBack) {
    Configure(Camera());
    relay.reset();
    alarm->Emit(StateChanged("Local", 1));
    ASSERT_TRUE(test::WaitUntil([&] { return ErrorLines().size() == 1; }));
    EXPECT_THAT(ErrorLines(), ElementsAre(StartsWith("Error halvek: org.freedesktop.DBus.Error.ServiceUnknown: ")));
    relay.emplace("RelayV3");
    relay->Answer("GetConfiguration", {true, false, 2, 100, 100, 1});
    relay->Answer("Activate", {true});
    alarm->Emit(StateChanged("Local", 1));
    EXPECT_TRUE(WaitForCalls(*relay, "Activate", 1));
}

}  // namespace

}  // namespace kelto::halvek
