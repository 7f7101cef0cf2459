#include "kelto/core/Logger.h"
#include "kelto/osa/Exception.h"
#include "monitor/EventMonitor.h"
#include "tests/support/Fifo.h"
#include "tests/support/Matchers.h"
#include "tests/support/ProcessState.h"
#include "tests/support/WaitUntil.h"
#include "tests/unit/monitor/MonitorFixture.h"

#include <functional>
#include <map>
#include <string>
#include <thread>
#include <utility>

namespace kelto::halvek {

namespace {

using namespace std::chrono_literals;

const std::string separator = "Information halvek: ***************************************************************";

class EventMonitorTest : public MonitorFixture {
protected:
    /** Two probe sources with a handler on both. */
    static core::IniFile TwoSources() {
        return MakeIni({{"Events/Source#1", {{"Type", "A"}}},
                        {"Events/Source#2", {{"Type", "B"}}},
                        {"Events/Handler#1", {{"Type", "Probe"}}},
                        {"Events/Handler#1/SourceIds", {{"1", "Events/Source#1"}, {"2", "Events/Source#2"}}}});
    }

    /** Makes the type "Unconfigured" known, whose handlers answer so. */
    void AddUnconfiguredHandlerType() {
        AddHandlerType("Unconfigured", [](HalvekEnv*) -> std::unique_ptr<EventHandler> {
            auto handler = std::make_unique<JournalHandler>("Unconfigured");
            handler->SetConfigured(false);
            return handler;
        });
    }

    /** Makes the real handler "Extern" one that is always on. */
    void AddExternHandlerType() {
        AddHandlerType(
            "Extern", [](HalvekEnv* env) { return HandlerRegistry::Instance().CreateHandlerByName("Extern", env); }, 1);
    }

    /** Whether an operation on another thread returns within a time. */
    static bool Returns(const std::function<void()>& operation, std::thread& thread, std::chrono::milliseconds limit) {
        const auto returned = std::make_shared<std::atomic<bool>>(false);
        thread = std::thread([operation, returned] {
            operation();
            *returned = true;
        });
        return test::WaitUntil([&] { return returned->load(); }, limit);
    }
};

TEST_F(EventMonitorTest, TheSeparatorHasSixtyThreeAsterisks) {
    EXPECT_EQ(separator, "Information halvek: " + std::string(63, '*'));
}

TEST_F(EventMonitorTest, LogsAWholeConfigurationInItsOrder) {
    UseRealSourceType("MsgBus");
    const std::string pipe = folder.PathOf("pipe");
    monitor->Configure(MakeIni({{"Applications/halvek/Server", {{"Type", "Pipe"}}},
                                {"Applications/halvek/Server/Pipe", {{"Path", pipe}}},
                                {"Events/Handler#1", {{"Type", "Probe"}}},
                                {"Events/Handler#1/SourceIds", {{"0", "Events/Source#1"}}},
                                {"Events/Source#1", {{"Type", "Motion"}}}}));
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("Information halvek: Configuring...",
                    "Information halvek: Current INI:\n"
                    "[Applications/halvek/Server]\nType=Pipe\n"
                    "[Applications/halvek/Server/Pipe]\nPath=" +
                        pipe +
                        "\n"
                        "[Events/Handler#1]\nType=Probe\n"
                        "[Events/Handler#1/SourceIds]\n0=Events/Source#1\n"
                        "[Events/Source#1]\nType=Motion",
                    separator, "Information halvek: Loading Servers", "Information halvek: \tFound Server: Pipe",
                    "Debug halvek: \tCreating EventSource: server",
                    "Debug halvek: \t** Contents of Ini group we're configuring", "Debug halvek: \t** Key\t\tValue",
                    "Debug halvek: \t** Path\t\t" + pipe, "Information halvek: Configuring EventServer",
                    "Information halvek: Creating FIFO: " + pipe, "Information halvek: Configured EventServer",
                    "Information halvek: Done loading servers", separator, "Information halvek: Loading Sources",
                    "Debug halvek: \tCreating EventSource: MsgBus",
                    "Information halvek: \tFound source Events/Source#1",
                    "Information halvek: \tSource: Events/Source#1\tType: Motion",
                    "Debug halvek: \tCreating EventSource: Motion", "Warning halvek: \tUnknown EventSource: Motion",
                    "Information halvek: Done loading sources", separator, "Information halvek: Loading Handlers",
                    "Information halvek: Found handler Events/Handler#1",
                    "Information halvek: Handler: Events/Handler#1  Type: Probe",
                    "Debug halvek: \t** Contents of Ini group we're configuring", "Debug halvek: \t** Key\t\tValue",
                    "Debug halvek: \t** Type\t\tProbe", "Debug halvek: Source name: Events/Source#1 ",
                    "Debug halvek: The source type being added to the EventServer: Motion",
                    "Debug halvek: \t\tEventServerSource::AddHandler: Adding handler to event: Motion",
                    "Debug halvek: Source created: EventSource{server}", "Information halvek: Done loading handlers",
                    separator, "Information halvek: Loading External Handler", "Debug halvek: Number of sources: 2",
                    "Debug halvek: Added Always handler to source", "Debug halvek: Added Always handler to source",
                    "Information halvek: Done loading external handler", separator,
                    "Warning kelto.msgbus: There is no message bus, looking for it: Cannot open the message bus: No "
                    "such file or directory",
                    "Debug halvek: Starting source: EventSource{MsgBus}",
                    "Information MsgBusEventSource: MsgBusEventSource started",
                    "Debug halvek: Starting source: EventSource{server}", "Information halvek: Opening FIFO: " + pipe,
                    "Information halvek: EventServerSource started", "Debug halvek: Done starting sources"));
}

TEST_F(EventMonitorTest, AnEmptyConfigurationStillMakesTheMessageBusSourceWithTheAlwaysOnHandler) {
    AddProbe("MsgBus");
    monitor->Configure({});
    EXPECT_THAT(journal.Entries(), ElementsAre("make MsgBus", "make Always", "attach to MsgBus", "start MsgBus"));
    EXPECT_EQ(log.Count("Warning halvek: \tError LoadServers: There is no settings group Applications/halvek/Server"),
              1U);
}

TEST_F(EventMonitorTest, AnEmptyConfigurationWithoutAnySourceIsNoFailure) {
    EXPECT_NO_THROW(monitor->Configure({}));
    EXPECT_EQ(log.Lines().back(), "Debug halvek: Done starting sources");
    EXPECT_TRUE(log.Has("Debug halvek: Number of sources: 0"));
}

TEST_F(EventMonitorTest, BuildsSourcesThenHandlersThenTheAlwaysOnHandlersAndStartsEverythingLast) {
    monitor->Configure(TwoSources());
    EXPECT_THAT(journal.Entries(), ElementsAre("make A", "configure A", "make B", "configure B", "make Probe",
                                               "configure Probe Type=Probe", "attach to A", "attach to B",
                                               "make Always", "attach to A", "attach to B", "start A", "start B"));
}

TEST_F(EventMonitorTest, TheAlwaysOnHandlerIsConfiguredByNobodyAndComesLastOnEverySource) {
    monitor->Configure(TwoSources());
    journal.Clear();
    Fire("A", "One");
    Fire("B", "Two");
    EXPECT_THAT(journal.Entries(),
                ElementsAre("Probe gets One", "Always gets One", "Probe gets Two", "Always gets Two"));
}

TEST_F(EventMonitorTest, SourcesAreStartedInTheOrderOfTheirIds) {
    AddProbe("server");
    AddProbe("MsgBus");
    monitor->Configure(MakeIni({{"Applications/halvek/Server", {{"Type", "Pipe"}}},
                                {"Events/Source#2", {{"Type", "B"}}},
                                {"Events/Source#10", {{"Type", "A"}}}}));
    EXPECT_THAT(EntriesWith("start"), ElementsAre("start MsgBus", "start server", "start A", "start B"));
    EXPECT_THAT(EntriesWith("make"), ElementsAre("make server", "make MsgBus", "make A", "make B", "make Always"));
}

TEST_F(EventMonitorTest, AReloadStopsAndDestroysEverySourceThenTheHandlersAndBuildsAnew) {
    monitor->Configure(TwoSources());
    const std::vector<std::string> built = journal.Entries();
    journal.Clear();
    monitor->Configure(TwoSources());
    std::vector<std::string> entries = journal.Entries();
    ASSERT_EQ(entries.size(), 6 + built.size());
    const std::vector<std::string> rebuilt(entries.begin() + 6, entries.end());
    entries.resize(6);
    EXPECT_EQ(std::vector<std::string>(entries.begin(), entries.begin() + 2),
              (std::vector<std::string>{"stop A", "stop B"}));
    EXPECT_THAT(std::vector<std::string>(entries.begin() + 2, entries.begin() + 4),
                UnorderedElementsAre("destroy A", "destroy B"));
    EXPECT_THAT(std::vector<std::string>(entries.begin() + 4, entries.end()),
                UnorderedElementsAre("destroy Probe", "destroy Always"));
    EXPECT_EQ(rebuilt, built);
}

TEST_F(EventMonitorTest, ReloadsLeaveAsManyHandlersAsThereWere) {
    monitor->Configure(TwoSources());
    ASSERT_EQ(CountLiveHandlers(), 2);
    for (int i = 0; i < 50; ++i) {
        monitor->Configure(TwoSources());
    }
    EXPECT_EQ(CountLiveHandlers(), 2);
    EXPECT_EQ(Handlers("Probe").size(), 51U);
    monitor->Configure({});
    EXPECT_EQ(CountLiveHandlers(), 1);
}

TEST_F(EventMonitorTest, TheDestructorStopsAllThenDestroysSourcesAndThenHandlers) {
    monitor->Configure(TwoSources());
    journal.Clear();
    monitor.reset();
    const std::vector<std::string> entries = journal.Entries();
    ASSERT_EQ(entries.size(), 6U);
    EXPECT_EQ(entries[0], "stop A");
    EXPECT_EQ(entries[1], "stop B");
    EXPECT_THAT(std::vector<std::string>(entries.begin() + 2, entries.begin() + 4),
                UnorderedElementsAre("destroy A", "destroy B"));
    EXPECT_EQ(CountLiveHandlers(), 0);
}

TEST_F(EventMonitorTest, TheDestructorSwallowsWhatStoppingThrowsAndDestroysTheSources) {
    for (const bool standard : {true, false}) {
        AddProbe("A", {.stop = [standard] {
                     if (standard) {
                         throw osa::Exception("cannot stop");
                     }
                     throw 42;
                 }});
        monitor = MakeMonitor();
        monitor->Configure(TwoSources());
        journal.Clear();
        EXPECT_NO_THROW(monitor.reset());
        EXPECT_THAT(EntriesWith("destroy"),
                    UnorderedElementsAre("destroy A", "destroy B", "destroy Probe", "destroy Always"));
    }
}

TEST_F(EventMonitorTest, WhatStartingThrowsLeavesConfigureAndTheLockFree) {
    AddProbe("A", {.start = [] { throw osa::Exception("cannot start"); }});
    EXPECT_THAT([this] { monitor->Configure(TwoSources()); }, FailsWith("cannot start"));
    EXPECT_THAT(EntriesWith("start"), ElementsAre("start A"));
    std::thread other;
    EXPECT_TRUE(Returns([this] { monitor->StopSources(); }, other, 20s));
    other.join();
}

TEST_F(EventMonitorTest, WhatStoppingThrowsLeavesConfigureBeforeAnythingIsBuilt) {
    AddProbe("A", {.stop = [] { throw 42; }});
    monitor->Configure(TwoSources());
    journal.Clear();
    EXPECT_THROW(monitor->Configure(TwoSources()), int);
    EXPECT_THAT(journal.Entries(), ElementsAre("stop A"));
}

TEST_F(EventMonitorTest, ALoadThatThrowsOutLeavesConfigureAndTheLockFree) {
    class Throwing : public EventMonitor {
    public:
        using EventMonitor::EventMonitor;
        void LoadHandlers(const core::IniFile&) override { throw 42; }
    };
    Throwing throwing(&registry);
    EXPECT_THROW(throwing.Configure(TwoSources()), int);
    EXPECT_THAT(EntriesWith("start"), IsEmpty());
    std::thread other;
    EXPECT_TRUE(Returns([&] { throwing.ClearSources(); }, other, 20s));
    other.join();
}

TEST_F(EventMonitorTest, TheMessageBusIsStartedAfterTheHandlersAndBeforeTheSources) {
    // A bus that has been started has a thread that listens, or looks for it.
    const auto isStarted = [] { return test::HasThread("MsgBusListener"); };
    static bool startedWhenHandlersAreMade = true;
    AddHandlerType(
        "Last",
        [](HalvekEnv*) -> std::unique_ptr<EventHandler> {
            startedWhenHandlersAreMade = test::HasThread("MsgBusListener");
            return std::make_unique<JournalHandler>("Last");
        },
        1);
    bool startedWhenConfigured = true;
    bool startedWhenStarting = false;
    AddSourceType("A", [&](HalvekEnv* given) {
        return ProbeCreator("A", {.configure = [&] { startedWhenConfigured = isStarted(); },
                                  .start = [&] { startedWhenStarting = isStarted(); }})(given);
    });
    monitor->Configure(TwoSources());
    EXPECT_FALSE(startedWhenConfigured);
    EXPECT_FALSE(startedWhenHandlersAreMade);
    EXPECT_TRUE(startedWhenStarting);
}

TEST_F(EventMonitorTest, TheEnvironmentSurvivesAReloadAndTheEventServerIsGivenNone) {
    std::vector<HalvekEnv*> ofSources;
    std::vector<HalvekEnv*> ofServers;
    AddSourceType("A", [&](HalvekEnv* env) {
        ofSources.push_back(env);
        return ProbeCreator("A")(env);
    });
    AddSourceType("server", [&](HalvekEnv* env) {
        ofServers.push_back(env);
        return ProbeCreator("server")(env);
    });
    const core::IniFile ini =
        MakeIni({{"Applications/halvek/Server", {{"Type", "Pipe"}}}, {"Events/Source#1", {{"Type", "A"}}}});
    monitor->Configure(ini);
    monitor->Configure(ini);
    ASSERT_EQ(ofSources.size(), 2U);
    EXPECT_NE(ofSources[0], nullptr);
    EXPECT_EQ(ofSources[0], ofSources[1]);
    EXPECT_THAT(ofServers, ElementsAre(nullptr, nullptr));
}

TEST_F(EventMonitorTest, SourcesFireWhileTheMonitorIsBusy) {
    AddProbe("B", {.start = [this] {
                 std::thread firing([this] { Fire("A"); });
                 firing.join();
             }});
    monitor->Configure(TwoSources());
    EXPECT_EQ(Handlers("Probe").at(0)->Count(), 1U);
}

TEST_F(EventMonitorTest, OtherThreadsWaitForAConfigurationInProgress) {
    std::thread other;
    bool returnedMeanwhile = true;
    AddProbe("A", {.start = [&] { returnedMeanwhile = Returns([this] { monitor->StopSources(); }, other, 100ms); }});
    monitor->Configure(TwoSources());
    other.join();
    EXPECT_FALSE(returnedMeanwhile);
    EXPECT_THAT(EntriesWith("stop"), ElementsAre("stop A", "stop B"));
}

TEST_F(EventMonitorTest, EveryOperationOfAnotherThreadWaitsForAConfigurationInProgress) {
    // Between its steps, where nothing but the configuration's own lock is held.
    class Asking : public EventMonitor {
    public:
        using EventMonitor::EventMonitor;
        void LoadHandlers(const core::IniFile& ini) override {
            if (const std::function<void()> action = std::exchange(onHandlers, nullptr)) {
                action();
            }
            EventMonitor::LoadHandlers(ini);
        }
        std::function<void()> onHandlers;
    };
    const core::IniFile ini = TwoSources();
    const std::map<std::string, std::function<void(EventMonitor&)>> operations = {
        {"Configure", [&](EventMonitor& asked) { asked.Configure(ini); }},
        {"LoadServers", [&](EventMonitor& asked) { asked.LoadServers(ini); }},
        {"LoadSources", [&](EventMonitor& asked) { asked.LoadSources(ini); }},
        {"LoadHandlers", [&](EventMonitor& asked) { asked.LoadHandlers(ini); }},
        {"LoadAlwaysOnHandlers", [&](EventMonitor& asked) { asked.LoadAlwaysOnHandlers(ini); }},
        {"StartSources", [](EventMonitor& asked) { asked.StartSources(); }},
        {"StopSources", [](EventMonitor& asked) { asked.StopSources(); }},
        {"ClearSources", [](EventMonitor& asked) { asked.ClearSources(); }}};
    for (const auto& [name, operation] : operations) {
        Asking asked(&registry);
        std::thread other;
        bool returnedMeanwhile = true;
        asked.onHandlers = [&] { returnedMeanwhile = Returns([&, &call = operation] { call(asked); }, other, 100ms); };
        asked.Configure(ini);
        other.join();
        EXPECT_FALSE(returnedMeanwhile) << name;
    }
}

TEST_F(EventMonitorTest, OtherThreadsWaitForSourcesThatAreBeingStarted) {
    std::thread other;
    bool returnedMeanwhile = true;
    std::function<void()> onStart;
    AddProbe("A", {.start = [&] {
                 if (onStart) {
                     onStart();
                 }
             }});
    monitor->Configure(TwoSources());
    monitor->StopSources();
    onStart = [&] { returnedMeanwhile = Returns([this] { monitor->StopSources(); }, other, 100ms); };
    monitor->StartSources();
    other.join();
    EXPECT_FALSE(returnedMeanwhile);
}

TEST_F(EventMonitorTest, OtherThreadsWaitForSourcesThatAreBeingDestroyed) {
    class LastWord : public JournalHandler {
    public:
        explicit LastWord(std::function<void()> end) : JournalHandler("LastWord"), onEnd(std::move(end)) {}
        ~LastWord() override { onEnd(); }

    private:
        const std::function<void()> onEnd;
    };
    static std::function<void()> onDestruction;
    AddHandlerType(
        "LastWord",
        [](HalvekEnv*) -> std::unique_ptr<EventHandler> { return std::make_unique<LastWord>([] { onDestruction(); }); },
        1);
    std::thread other;
    bool returnedMeanwhile = true;
    onDestruction = [&] { returnedMeanwhile = Returns([this] { monitor->StopSources(); }, other, 100ms); };
    monitor->Configure(TwoSources());
    monitor->StopSources();
    monitor->ClearSources();
    other.join();
    EXPECT_FALSE(returnedMeanwhile);
}

TEST_F(EventMonitorTest, NoHandlerIsDestroyedWhileATimerDelivers) {
    class Busy : public test::RecordingHandler {
    public:
        Busy()
            : RecordingHandler([this](Event&) {
                  inside = true;
                  std::this_thread::yield();
                  inside = false;
              }) {}
        ~Busy() override { journal.Note(inside ? "destroyed inside" : "destroyed outside"); }

    private:
        std::atomic<bool> inside = false;
    };
    AddHandlerType("Busy", [](HalvekEnv*) -> std::unique_ptr<EventHandler> { return std::make_unique<Busy>(); });
    const core::IniFile ini = MakeIni({{"Events/Source#1", {{"Type", "Timer"}}},
                                       {"Events/Source#1/Timer", {{"Interval.sec", "0"}}},
                                       {"Events/Handler#1", {{"Type", "Busy"}}},
                                       {"Events/Handler#1/SourceIds", {{"1", "Events/Source#1"}}}});
    core::Logger::SetLevels({.general = core::LogLevel::Warning, .byLogger = {}});
    for (int i = 0; i < 30; ++i) {
        monitor->Configure(ini);
    }
    monitor.reset();
    EXPECT_EQ(EntriesWith("destroyed outside").size(), 30U);
    EXPECT_THAT(EntriesWith("destroyed inside"), IsEmpty());
}

TEST_F(EventMonitorTest, AnUnconfiguredHandlerCostsTheExternHandlerTheTicksWhichThenComeWithoutSleep) {
    AddUnconfiguredHandlerType();
    AddExternHandlerType();
    const test::Fifo output("/var/run/halvek/all.halvek.any");
    monitor->Configure(MakeIni({{"Events/Source#1", {{"Type", "Timer"}}},
                                {"Events/Source#1/Timer", {{"Interval.sec", "60"}}},
                                {"Events/Handler#1", {{"Type", "Probe"}}},
                                {"Events/Handler#1/SourceIds", {{"1", "Events/Source#1"}}},
                                {"Events/Handler#2", {{"Type", "Unconfigured"}}},
                                {"Events/Handler#2/SourceIds", {{"1", "Events/Source#1"}}}}));
    EXPECT_TRUE(log.WaitFor("Error halvek: EventHandler: not configured", 10));
    monitor->StopSources();
    EXPECT_GE(Handlers("Probe").at(0)->Count(), 10U);
    EXPECT_EQ(log.Text().find("next tick"), std::string::npos);
    EXPECT_EQ(Handlers("Always").at(0)->Count(), 0U);
    EXPECT_EQ(output.Read(), "");
}

TEST_F(EventMonitorTest, AnUnconfiguredHandlerCostsTheExternHandlerTheServersEventsAndTheServerGoesOn) {
    AddUnconfiguredHandlerType();
    AddExternHandlerType();
    const test::Fifo output("/var/run/halvek/all.halvek.any");
    const test::Fifo input(folder.PathOf("pipe"));
    monitor->Configure(MakeIni({{"Applications/halvek/Server", {{"Type", "Pipe"}}},
                                {"Applications/halvek/Server/Pipe", {{"Path", input.GetPath()}}},
                                {"Events/Handler#1", {{"Type", "Unconfigured"}}},
                                {"Events/Handler#1/SourceIds", {{"1", "Applications/halvek/Server"}}}}));
    input.Write("[A]\n.\n[B]\n.\n");
    EXPECT_TRUE(log.WaitFor("Error halvek: EventHandler: not configured", 2));
    EXPECT_TRUE(log.Has("Information halvek: EventServerSource: Received event: B"));
    monitor->StopSources();
    EXPECT_EQ(output.Read(), "");
}

TEST_F(EventMonitorTest, TimersPipesAndTheExternHandlerWorkTogether) {
    AddExternHandlerType();
    const test::Fifo output("/var/run/halvek/Door.fifo");
    const test::Fifo input(folder.PathOf("pipe"));
    const core::IniFile ini = MakeIni({{"Applications/halvek/Server", {{"Type", "Pipe"}}},
                                       {"Applications/halvek/Server/Pipe", {{"Path", input.GetPath()}}},
                                       {"Events/Source#1", {{"Type", "Timer"}}},
                                       {"Events/Source#2", {{"Type", "Door"}}},
                                       {"Events/Handler#1", {{"Type", "Probe"}}},
                                       {"Events/Handler#1/SourceIds", {{"1", "Events/Source#2"}}}});
    for (size_t round = 0; round < 3; ++round) {
        monitor->Configure(ini);
        input.Write("[Door]\n.\n[Window]\n.\n");
        EXPECT_TRUE(Handlers("Probe").at(round)->WaitForCount(1));
        EXPECT_TRUE(log.WaitFor("Debug halvek: EventServerSource: Event has eventID of: Window", round + 1));
        EXPECT_EQ(output.Read().substr(0, 7), "[Door]\n");
        EXPECT_EQ(EntriesWith("Probe gets").size(), round + 1);
    }
    monitor.reset();
    EXPECT_EQ(CountLiveHandlers(), 0);
}

}  // namespace

}  // namespace kelto::halvek
