#include "kelto/osa/Exception.h"
#include "tests/support/Matchers.h"
#include "tests/unit/monitor/MonitorFixture.h"

#include <list>

namespace kelto::halvek {

namespace {

constexpr const char* serverGroup = "Applications/halvek/Server";

class EventMonitorLoadingTest : public MonitorFixture {
protected:
    /** The names that the groups give, cut for brevity of what they all begin with. */
    static std::list<std::string> Enumerate(const std::vector<std::string>& groups) {
        core::IniFile ini;
        for (const std::string& group : groups) {
            ini.AddGroup("Events/Source" + group);
        }
        std::list<std::string> names;
        EventMonitor::EnumerateGroups(ini, "Events/Source#", names);
        for (std::string& name : names) {
            name.erase(0, std::string("Events/Source").size());
        }
        return names;
    }

    /** Loads handler group 1 of that type with these sources and settings. */
    void LoadHandler(const std::string& type, const core::IniFile::Group& sourceIds,
                     const core::IniFile::Groups& others = {}) {
        core::IniFile::Groups groups = others;
        groups["Events/Handler#1"].insert({"Type", type});
        groups["Events/Handler#1/SourceIds"] = sourceIds;
        log.Clear();
        monitor->LoadHandlers(MakeIni(groups));
    }

    void LoadSourcesAAndB() {
        monitor->LoadSources(MakeIni({{"Events/Source#1", {{"Type", "A"}}}, {"Events/Source#2", {{"Type", "B"}}}}));
    }

    void LoadServer() {
        monitor->LoadServers(MakeIni({{serverGroup, {{"Type", "Pipe"}}},
                                      {"Applications/halvek/Server/Pipe", {{"Path", folder.PathOf("pipe")}}}}));
    }
};

TEST_F(EventMonitorLoadingTest, GroupsAreCutAtTheFirstSlashAndNamedOnce) {
    EXPECT_THAT(Enumerate({"#1", "#1/Timer", "#1/Timer/deeper", "#2"}), ElementsAre("#1", "#2"));
    EXPECT_THAT(Enumerate({"#1/Timer"}), ElementsAre("#1"));
}

TEST_F(EventMonitorLoadingTest, GroupsComeInTheOrderOfTheirBytes) {
    EXPECT_THAT(Enumerate({"#2", "#10", "#1", "#b", "#B", "#01"}), ElementsAre("#01", "#1", "#10", "#2", "#B", "#b"));
}

TEST_F(EventMonitorLoadingTest, GapsAndNamesThatAreNoNumbersDoNotMatter) {
    EXPECT_THAT(Enumerate({"#7", "#door", "#"}), ElementsAre("#", "#7", "#door"));
    EXPECT_THAT(Enumerate({"#/Timer"}), ElementsAre("#"));
}

TEST_F(EventMonitorLoadingTest, AGroupIsComparedWithTheNameJustBeforeOnly) {
    EXPECT_THAT(Enumerate({"#1", "#1-a", "#1/Timer"}), ElementsAre("#1", "#1-a", "#1"));
}

TEST_F(EventMonitorLoadingTest, GroupsOfOtherPrefixesAreLeftOut) {
    EXPECT_THAT(Enumerate({"", "$1", "s#1", "/x"}), IsEmpty());
}

TEST_F(EventMonitorLoadingTest, GroupNamesAreAppended) {
    core::IniFile ini;
    ini.AddGroup("Events/Source#1");
    std::list<std::string> names{"Events/Source#1"};
    EventMonitor::EnumerateGroups(ini, "Events/Source#", names);
    EXPECT_THAT(names, ElementsAre("Events/Source#1", "Events/Source#1"));
}

TEST_F(EventMonitorLoadingTest, AServerOfTypePipeIsMadeAndGivenItsGroup) {
    AddProbe("server");
    monitor->LoadServers(
        MakeIni({{serverGroup, {{"Type", "Pipe"}, {"x", "1"}}}, {"Applications/halvek/Server/Pipe", {{"Path", "p"}}}}));
    EXPECT_THAT(journal.Entries(), ElementsAre("make server", "configure server Path=p"));
    EXPECT_THAT(log.Lines(), ElementsAre("Information halvek: \tFound Server: Pipe"));
}

TEST_F(EventMonitorLoadingTest, AServerWithoutItsOwnGroupIsGivenAnEmptyOne) {
    AddProbe("server");
    monitor->LoadServers(MakeIni({{serverGroup, {{"Type", "Pipe"}}}}));
    EXPECT_THAT(journal.Entries(), ElementsAre("make server", "configure server"));
}

TEST_F(EventMonitorLoadingTest, ASecondServerReplacesTheFirst) {
    AddProbe("server");
    const core::IniFile ini = MakeIni({{serverGroup, {{"Type", "Pipe"}}}});
    monitor->LoadServers(ini);
    monitor->LoadServers(ini);
    EXPECT_THAT(EntriesWith("destroy"), ElementsAre("destroy server"));
}

TEST_F(EventMonitorLoadingTest, WithoutAServerGroupTheLookUpsFailureIsTheWarning) {
    monitor->LoadServers({});
    EXPECT_THAT(log.Lines(), ElementsAre("Warning halvek: \tError LoadServers: There is no settings group "
                                         "Applications/halvek/Server"));
}

TEST_F(EventMonitorLoadingTest, WithoutAServerTypeTheLookUpsFailureIsTheWarning) {
    monitor->LoadServers(MakeIni({{serverGroup, {{"x", "1"}}}}));
    EXPECT_THAT(log.Lines(), ElementsAre("Warning halvek: \tError LoadServers: There is no key Type in settings group "
                                         "Applications/halvek/Server"));
}

TEST_F(EventMonitorLoadingTest, AnyServerTypeButPipeIsRefused) {
    for (const std::string type : {"Socket", "pipe", "Pipe ", ""}) {
        log.Clear();
        monitor->LoadServers(MakeIni({{serverGroup, {{"Type", type}}}}));
        EXPECT_THAT(log.Lines(), ElementsAre("Warning halvek: \tError LoadServers: We currently only support pipe "
                                             "servers"));
    }
}

TEST_F(EventMonitorLoadingTest, AServerThatTheFactoryDoesNotMakeIsPassedOver) {
    AddSourceType("server", [](HalvekEnv*) { return nullptr; });
    monitor->LoadServers(MakeIni({{serverGroup, {{"Type", "Pipe"}}}}));
    EXPECT_THAT(log.Lines(), ElementsAre("Information halvek: \tFound Server: Pipe"));
    log.Clear();
    monitor->StartSources();
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: Done starting sources"));
}

TEST_F(EventMonitorLoadingTest, AServerThatCannotBeConfiguredIsDestroyedAndWarnedOf) {
    AddProbe("server", {.configure = [] { throw osa::Exception("bad path"); }});
    LoadServer();
    EXPECT_EQ(log.Lines().back(), "Warning halvek: \tError LoadServers: bad path");
    AddProbe("server", {.configure = [] { throw 42; }});
    LoadServer();
    EXPECT_EQ(log.Lines().back(), "Warning halvek: \tError LoadServers: server has an invalid config");
    EXPECT_EQ(EntriesWith("destroy").size(), 2U);
    monitor->StartSources();
    EXPECT_THAT(EntriesWith("start"), IsEmpty());
}

TEST_F(EventMonitorLoadingTest, SourcesAreMadeInTheOrderOfTheBytesAndGivenTheirTypesGroup) {
    monitor->LoadSources(MakeIni({{"Events/Source#2", {{"Type", "A"}, {"x", "common"}}},
                                  {"Events/Source#2/A", {{"y", "own"}}},
                                  {"Events/Source#2/B", {{"y", "another type's"}}},
                                  {"Events/Source#10", {{"Type", "B"}}}}));
    EXPECT_THAT(journal.Entries(), ElementsAre("make B", "configure B", "make A", "configure A y=own"));
    EXPECT_THAT(log.Lines(), IsSupersetOf({"Information halvek: \tFound source Events/Source#10",
                                           "Information halvek: \tSource: Events/Source#10\tType: B",
                                           "Information halvek: \tFound source Events/Source#2",
                                           "Information halvek: \tSource: Events/Source#2\tType: A"}));
}

TEST_F(EventMonitorLoadingTest, TheMessageBusSourceIsMadeFirstAndNotConfigured) {
    AddProbe("MsgBus");
    LoadSourcesAAndB();
    EXPECT_THAT(journal.Entries(), ElementsAre("make MsgBus", "make A", "configure A", "make B", "configure B"));
}

TEST_F(EventMonitorLoadingTest, AGroupThatIsNamedTwiceReplacesItsSource) {
    monitor->LoadSources(MakeIni({{"Events/Source#1", {{"Type", "A"}}},
                                  {"Events/Source#1-a", {{"Type", "B"}}},
                                  {"Events/Source#1/A", {{"x", "1"}}}}));
    EXPECT_THAT(journal.Entries(), ElementsAre("make A", "configure A x=1", "make B", "configure B", "make A",
                                               "configure A x=1", "destroy A"));
    monitor->StartSources();
    EXPECT_THAT(EntriesWith("start"), ElementsAre("start A", "start B"));
}

TEST_F(EventMonitorLoadingTest, ASourceGroupWithoutATypeIsSkippedWithAWarning) {
    monitor->LoadSources(
        MakeIni({{"Events/Source#1", {{"x", "1"}}}, {"Events/Source#2/A", {}}, {"Events/Source#3", {{"Type", "A"}}}}));
    EXPECT_TRUE(log.Has("Warning halvek: \tError LoadSources: There is no key Type in settings group Events/Source#1"));
    EXPECT_TRUE(log.Has("Warning halvek: \tError LoadSources: There is no settings group Events/Source#2"));
    EXPECT_THAT(journal.Entries(), ElementsAre("make A", "configure A"));
}

TEST_F(EventMonitorLoadingTest, AnUnknownSourceTypeIsLeftOutWithTheFactorysWarningOnly) {
    monitor->LoadSources(MakeIni({{"Events/Source#1", {{"Type", "Motion"}}}}));
    EXPECT_EQ(log.Lines().back(), "Warning halvek: \tUnknown EventSource: Motion");
    monitor->StartSources();
    EXPECT_EQ(log.Lines().back(), "Debug halvek: Done starting sources");
    EXPECT_THAT(log.Text(), Not(HasSubstr("Starting source")));
}

TEST_F(EventMonitorLoadingTest, TheTypeSystemMakesNoSourceAndNoWarning) {
    monitor->LoadSources(MakeIni({{"Events/Source#1", {{"Type", "System"}}}}));
    EXPECT_EQ(log.Lines().back(), "Debug halvek: \tCreating EventSource: System");
}

TEST_F(EventMonitorLoadingTest, ASourceThatCannotBeConfiguredIsDestroyedAtOnceAndTheNextIsTaken) {
    AddProbe("A", {.configure = [] { throw osa::Exception("bad bank"); }});
    LoadSourcesAAndB();
    EXPECT_TRUE(log.Has("Warning halvek: \tError LoadSources: bad bank"));
    EXPECT_THAT(journal.Entries(), ElementsAre("make A", "configure A", "destroy A", "make B", "configure B"));
    monitor->StartSources();
    EXPECT_THAT(EntriesWith("start"), ElementsAre("start B"));
}

TEST_F(EventMonitorLoadingTest, ASourcesExceptionOfAnotherTypeIsAnInvalidConfig) {
    AddProbe("A", {.configure = [] { throw 42; }});
    AddSourceType("B", [](HalvekEnv*) -> std::unique_ptr<EventSource> { throw "text"; });
    LoadSourcesAAndB();
    EXPECT_EQ(log.Count("Warning halvek: \tError LoadSources: source has an invalid config"), 2U);
    EXPECT_THAT(journal.Entries(), ElementsAre("make A", "configure A", "destroy A"));
}

TEST_F(EventMonitorLoadingTest, AMessageBusSourceThatCannotBeMadeEndsTheLoadingOfSources) {
    AddSourceType("MsgBus", [](HalvekEnv*) -> std::unique_ptr<EventSource> { throw osa::Exception("no bus"); });
    LoadSourcesAAndB();
    EXPECT_THAT(log.Lines(), ElementsAre("Warning halvek: \tError LoadSources: no bus"));
    AddSourceType("MsgBus", [](HalvekEnv*) -> std::unique_ptr<EventSource> { throw 42; });
    log.Clear();
    LoadSourcesAAndB();
    EXPECT_THAT(log.Lines(), ElementsAre("Warning halvek: \tError LoadSources: source has an invalid config"));
    EXPECT_THAT(journal.Entries(), IsEmpty());
}

TEST_F(EventMonitorLoadingTest, AHandlerIsAttachedToItsSourcesInTheOrderOfTheKeys) {
    LoadSourcesAAndB();
    journal.Clear();
    LoadHandler("Probe", {{"b", "Events/Source#1"}, {"a", "Events/Source#2"}});
    EXPECT_THAT(journal.Entries(),
                ElementsAre("make Probe", "configure Probe Type=Probe", "attach to B", "attach to A"));
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("Information halvek: Found handler Events/Handler#1",
                    "Information halvek: Handler: Events/Handler#1  Type: Probe",
                    "Debug halvek: \t** Contents of Ini group we're configuring", "Debug halvek: \t** Key\t\tValue",
                    "Debug halvek: \t** Type\t\tProbe", "Debug halvek: Source name: Events/Source#2 ",
                    "Debug halvek: Source created: EventSource{B}", "Debug halvek: Source name: Events/Source#1 ",
                    "Debug halvek: Source created: EventSource{A}"));
}

TEST_F(EventMonitorLoadingTest, ASourceListedTwiceHasTheHandlerTwice) {
    LoadSourcesAAndB();
    LoadHandler("Probe", {{"1", "Events/Source#1"}, {"2", "Events/Source#1"}});
    Fire("A");
    EXPECT_EQ(Handlers("Probe").at(0)->Count(), 2U);
}

TEST_F(EventMonitorLoadingTest, HandlersOfOneSourceRunInTheOrderOfTheirGroups) {
    LoadSourcesAAndB();
    monitor->LoadHandlers(MakeIni({{"Events/Handler#2", {{"Type", "Probe"}}},
                                   {"Events/Handler#2/SourceIds", {{"1", "Events/Source#1"}}},
                                   {"Events/Handler#10", {{"Type", "Other"}}},
                                   {"Events/Handler#10/SourceIds", {{"1", "Events/Source#1"}}}}));
    journal.Clear();
    Fire("A", "X");
    EXPECT_THAT(journal.Entries(), ElementsAre("Other gets X", "Probe gets X"));
}

TEST_F(EventMonitorLoadingTest, WhereAKeyStandsInBothGroupsTheTypesOwnWins) {
    LoadSourcesAAndB();
    LoadHandler("Probe", {{"1", "Events/Source#1"}},
                {{"Events/Handler#1", {{"Time", "common"}, {"EnabledDays", "M"}}},
                 {"Events/Handler#1/Probe", {{"Time", "own"}, {"Level", "3"}, {"Type", "odd"}}},
                 {"Events/Handler#1/Other", {{"Level", "4"}}}});
    EXPECT_THAT(EntriesWith("configure Probe"), ElementsAre("configure Probe EnabledDays=M Level=3 Time=own Type=odd"));
}

TEST_F(EventMonitorLoadingTest, AHandlerWithoutSourcesIsNotMade) {
    LoadSourcesAAndB();
    LoadHandler("Probe", {});
    EXPECT_EQ(log.Lines().back(), "Debug halvek: Handler Probe has no sources");
    log.Clear();
    monitor->LoadHandlers(MakeIni({{"Events/Handler#1", {{"Type", "Probe"}}}}));
    EXPECT_EQ(log.Lines().back(), "Debug halvek: Handler Probe has no sources");
    EXPECT_THAT(Handlers("Probe"), IsEmpty());
}

TEST_F(EventMonitorLoadingTest, AnUnknownHandlerTypeIsAnErrorAndTheNextGroupIsTaken) {
    LoadSourcesAAndB();
    LoadHandler(
        "probe", {{"1", "Events/Source#1"}},
        {{"Events/Handler#2", {{"Type", "Other"}}}, {"Events/Handler#2/SourceIds", {{"1", "Events/Source#1"}}}});
    EXPECT_EQ(log.Count("Error halvek: CreateHandlerByName failed for probe"), 1U);
    EXPECT_EQ(Handlers("Other").size(), 1U);
}

TEST_F(EventMonitorLoadingTest, AHandlerGroupWithoutATypeIsSkippedWithAWarning) {
    monitor->LoadHandlers(MakeIni({{"Events/Handler#1", {}}, {"Events/Handler#2/SourceIds", {}}}));
    EXPECT_TRUE(log.Has("Warning halvek: Error LoadHandlers: There is no key Type in settings group Events/Handler#1"));
    EXPECT_TRUE(log.Has("Warning halvek: Error LoadHandlers: There is no settings group Events/Handler#2"));
}

TEST_F(EventMonitorLoadingTest, AHandlerThatCannotBeConfiguredIsDestroyedAtOnceAndNotAttached) {
    AddHandlerType("Failing", [](HalvekEnv*) -> std::unique_ptr<EventHandler> {
        return std::make_unique<JournalHandler>("Failing", [] { throw osa::Exception("no folder"); });
    });
    LoadSourcesAAndB();
    journal.Clear();
    LoadHandler("Failing", {{"1", "Events/Source#1"}});
    EXPECT_EQ(log.Lines().back(), "Warning halvek: Error LoadHandlers: no folder");
    EXPECT_THAT(journal.Entries(), ElementsAre("make Failing", "configure Failing Type=Failing", "destroy Failing"));
}

TEST_F(EventMonitorLoadingTest, AHandlersExceptionOfAnotherTypeIsAnInvalidConfigAndTheNextGroupIsTaken) {
    AddHandlerType("Odd", [](HalvekEnv*) -> std::unique_ptr<EventHandler> {
        return std::make_unique<JournalHandler>("Odd", [] { throw 42; });
    });
    LoadSourcesAAndB();
    LoadHandler(
        "Odd", {{"1", "Events/Source#1"}},
        {{"Events/Handler#2", {{"Type", "Probe"}}}, {"Events/Handler#2/SourceIds", {{"1", "Events/Source#1"}}}});
    EXPECT_TRUE(log.Has("Warning halvek: Error LoadHandlers: handler has an invalid config"));
    EXPECT_EQ(Handlers("Probe").size(), 1U);
    EXPECT_THAT(EntriesWith("destroy"), ElementsAre("destroy Odd"));
}

TEST_F(EventMonitorLoadingTest, AHandlerThatCannotBeMadeIsWarnedOf) {
    AddHandlerType("Failing", [](HalvekEnv*) -> std::unique_ptr<EventHandler> { throw osa::Exception("no bus"); });
    AddHandlerType("Odd", [](HalvekEnv*) -> std::unique_ptr<EventHandler> { throw 42; });
    LoadSourcesAAndB();
    LoadHandler("Failing", {{"1", "Events/Source#1"}});
    EXPECT_EQ(log.Lines().back(), "Warning halvek: Error LoadHandlers: no bus");
    LoadHandler("Odd", {{"1", "Events/Source#1"}});
    EXPECT_EQ(log.Lines().back(), "Warning halvek: Error LoadHandlers: handler has an invalid config");
}

TEST_F(EventMonitorLoadingTest, ASourceIdWithoutAGroupEndsThatHandlersListAndWhatIsAttachedStays) {
    LoadSourcesAAndB();
    journal.Clear();
    LoadHandler("Probe", {{"1", "Events/Source#1"}, {"2", "Events/Source#9"}, {"3", "Events/Source#2"}});
    EXPECT_THAT(EntriesWith("attach"), ElementsAre("attach to A"));
    EXPECT_EQ(log.Lines().back(), "Warning halvek: Error LoadHandlers: There is no settings group Events/Source#9");
    Fire("A");
    EXPECT_EQ(Handlers("Probe").at(0)->Count(), 1U);
}

TEST_F(EventMonitorLoadingTest, ASourceIdWhoseGroupHasNoTypeEndsThatHandlersList) {
    LoadSourcesAAndB();
    journal.Clear();
    LoadHandler("Probe", {{"1", "Events/Source#9"}, {"2", "Events/Source#1"}}, {{"Events/Source#9", {{"x", "1"}}}});
    EXPECT_THAT(EntriesWith("attach"), IsEmpty());
    EXPECT_EQ(log.Lines().back(),
              "Warning halvek: Error LoadHandlers: There is no key Type in settings group Events/Source#9");
}

TEST_F(EventMonitorLoadingTest, ATypeWithoutASourceGoesToTheEventServerUnderThatType) {
    LoadServer();
    LoadHandler("Probe", {{"1", "Events/Source#1"}}, {{"Events/Source#1", {{"Type", "Motion"}}}});
    EXPECT_THAT(log.Lines(),
                IsSupersetOf({"Debug halvek: The source type being added to the EventServer: Motion",
                              "Debug halvek: \t\tEventServerSource::AddHandler: Adding handler to event: Motion",
                              "Debug halvek: Source created: EventSource{server}"}));
}

TEST_F(EventMonitorLoadingTest, ASourceWhoseConfigureFailedGoesToTheEventServerUnderItsType) {
    AddProbe("A", {.configure = [] { throw osa::Exception("bad bank"); }});
    const core::IniFile::Groups source = {{"Events/Source#1", {{"Type", "A"}}}};
    LoadServer();
    monitor->LoadSources(MakeIni(source));
    LoadHandler("Probe", {{"1", "Events/Source#1"}}, source);
    EXPECT_TRUE(log.Has("Debug halvek: \t\tEventServerSource::AddHandler: Adding handler to event: A"));
}

TEST_F(EventMonitorLoadingTest, TheEventServerItselfIsASourceId) {
    LoadServer();
    LoadHandler("Probe", {{"1", serverGroup}});
    EXPECT_EQ(log.Lines().back(), "Debug halvek: Source created: EventSource{server}");
    EXPECT_THAT(log.Text(), Not(HasSubstr("Adding handler to event")));
}

TEST_F(EventMonitorLoadingTest, WithoutAnEventServerItsIdsAreWarnedOfAndLaterIdsStillTaken) {
    LoadSourcesAAndB();
    journal.Clear();
    LoadHandler("Probe", {{"1", "Events/Source#9"}, {"2", "Events/Source#1"}},
                {{"Events/Source#9", {{"Type", "Motion"}}}});
    std::vector<std::string> warnings = log.Lines();
    std::erase_if(warnings, [](const std::string& line) { return line.find("Warning") != 0; });
    ASSERT_EQ(warnings.size(), 1U);
    EXPECT_THAT(warnings[0], StartsWith("Warning halvek: Error LoadHandlers: "));
    EXPECT_THAT(warnings[0], HasSubstr("Events/Source#9"));
    EXPECT_THAT(warnings[0], HasSubstr("Applications/halvek/Server"));
    EXPECT_THAT(EntriesWith("attach"), ElementsAre("attach to A"));
}

TEST_F(EventMonitorLoadingTest, OrdinaryTypesAreNotMadeAsAlwaysOnOnes) {
    LoadSourcesAAndB();
    monitor->LoadAlwaysOnHandlers({});
    EXPECT_THAT(EntriesWith("make"), ElementsAre("make A", "make B", "make Always"));
}

TEST_F(EventMonitorLoadingTest, AnAlwaysOnTypeMayAlsoBeConfiguredAsAFurtherHandler) {
    LoadSourcesAAndB();
    LoadHandler("Always", {{"1", "Events/Source#1"}});
    monitor->LoadAlwaysOnHandlers({});
    Fire("A");
    EXPECT_EQ(Handlers("Always").size(), 2U);
    EXPECT_THAT(EntriesWith("configure Always"), ElementsAre("configure Always Type=Always"));
    EXPECT_EQ(EntriesWith("Always gets").size(), 2U);
}

TEST_F(EventMonitorLoadingTest, AttachingToAllSourcesGoesInTheOrderOfTheIdsAndIsLogged) {
    LoadSourcesAAndB();
    test::RecordingHandler handler;
    journal.Clear();
    log.Clear();
    monitor->AttachToAllSources("Some", &handler);
    EXPECT_THAT(journal.Entries(), ElementsAre("attach to A", "attach to B"));
    EXPECT_THAT(log.Lines(),
                ElementsAre("Debug halvek: Number of sources: 2", "Debug halvek: Added Some handler to source",
                            "Debug halvek: Added Some handler to source"));
    monitor->ClearSources();
}

TEST_F(EventMonitorLoadingTest, AnAlwaysOnHandlerThatCannotBeMadeIsAnErrorAndTheNextIsTaken) {
    AddHandlerType(
        "Null", [](HalvekEnv*) -> std::unique_ptr<EventHandler> { return nullptr; }, 1);
    LoadSourcesAAndB();
    log.Clear();
    monitor->LoadAlwaysOnHandlers({});
    EXPECT_EQ(log.Lines().front(), "Error halvek: Failed to create handler Null");
    EXPECT_EQ(Handlers("Always").size(), 1U);
}

TEST_F(EventMonitorLoadingTest, AnAlwaysOnHandlersExceptionsAreWarnedOfAndTheNextIsTaken) {
    AddHandlerType(
        "Failing", [](HalvekEnv*) -> std::unique_ptr<EventHandler> { throw osa::Exception("no bus"); }, 1);
    AddHandlerType(
        "Odd", [](HalvekEnv*) -> std::unique_ptr<EventHandler> { throw 42; }, 1);
    LoadSourcesAAndB();
    log.Clear();
    monitor->LoadAlwaysOnHandlers({});
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("Warning halvek: Error Loading AlwaysOn Handler: handler misconfigured",
                    "Warning halvek: Error Loading AlwaysOn Handler: no bus", "Debug halvek: Number of sources: 2",
                    "Debug halvek: Added Always handler to source", "Debug halvek: Added Always handler to source"));
}

TEST_F(EventMonitorLoadingTest, StartingNamesEachSource) {
    LoadSourcesAAndB();
    log.Clear();
    monitor->StartSources();
    EXPECT_THAT(log.Lines(),
                ElementsAre("Debug halvek: Starting source: EventSource{A}",
                            "Debug halvek: Starting source: EventSource{B}", "Debug halvek: Done starting sources"));
}

TEST_F(EventMonitorLoadingTest, ClearingEmptiesTheTable) {
    LoadSourcesAAndB();
    monitor->ClearSources();
    journal.Clear();
    monitor->StopSources();
    monitor->StartSources();
    EXPECT_THAT(journal.Entries(), IsEmpty());
}

}  // namespace

}  // namespace kelto::halvek
