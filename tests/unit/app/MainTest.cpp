#include "kelto/core/Logger.h"
#include "kelto/osa/Exception.h"
#include "tests/fakes/EnvironmentVariable.h"
#include "tests/fakes/Journal.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/NotifySocket.h"
#include "tests/fakes/ProbeSource.h"
#include "tests/fakes/RunHook.h"
#include "tests/fakes/SourceFactoryHook.h"
#include "tests/fakes/TempDir.h"

#include <gmock/gmock.h>

#include <array>
#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// The program's main, under the name that it is compiled with here.
int HalvekMain(int argc, char** argv);

namespace kelto::halvek {

namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

/** The log is shut down for good at an orderly end: one test a process, as ctest has it. */
class MainTest : public ::testing::Test {
protected:
    MainTest() { folder.Write("settings.ini", "[Events/Source#1]\nType=Probe\n"); }

    /** What the probe does when it is started from now on; may throw. */
    void SetStart(const std::function<void()>& start) { actions.start = start; }

    int RunMain() {
        std::string name = "halvek";
        std::array<char*, 2> arguments{name.data(), nullptr};
        return HalvekMain(1, arguments.data());
    }

    const test::TempDir folder;
    const test::EnvironmentVariable store{"KELTO_SETTINGS", folder.PathOf("settings.ini")};
    const test::EnvironmentVariable level{"KELTO_LOG", "Debug"};
    const test::NotifySocket manager;
    test::LogCapture log{core::LogLevel::Debug};
    test::Journal journal;
    test::ProbeSource::Actions actions;
    const test::SourceFactoryHook hook{
        {{"Probe", [this](HalvekEnv*) { return std::make_unique<test::ProbeSource>(journal, "Probe", actions); }}}};
};

TEST_F(MainTest, AnOrderlyStopAfterReadinessEndsWithStatus0) {
    const test::RunHook stopping([this] {
        EXPECT_THAT(manager.Take(), ElementsAre("READY=1"));
        std::raise(SIGTERM);
    });
    EXPECT_EQ(RunMain(), 0);
    EXPECT_THAT(manager.Take(), ElementsAre());
    EXPECT_EQ(journal.Entries().back(), "destroy Probe");
}

TEST_F(MainTest, AServiceManagerThatCannotBeToldIsAWarningAndTheDaemonRuns) {
    const test::EnvironmentVariable nowhere("NOTIFY_SOCKET", "/nowhere/socket");
    const test::RunHook stopping([] { std::raise(SIGTERM); });
    EXPECT_EQ(RunMain(), 0);
    EXPECT_EQ(log.Count("Warning halvek: The service manager cannot be told READY=1: No such file or directory"), 1U);
}

TEST_F(MainTest, AnOrderlyEndEndsTheLogToo) {
    const test::RunHook stopping([] { std::raise(SIGTERM); });
    const core::Logger& logger = core::Logger::GetLogger("halvek");
    EXPECT_EQ(RunMain(), 0);
    const std::string before = log.Text();
    logger.Error("too late");
    EXPECT_EQ(log.Text(), before);
}

TEST_F(MainTest, AConfigurationRejectedAtTheStartDoesNotKeepItFromReadiness) {
    SetStart([] { throw osa::Exception("cannot start"); });
    const test::RunHook stopping([] { std::raise(SIGTERM); });
    EXPECT_EQ(RunMain(), 0);
    EXPECT_TRUE(log.Has("Error halvek: Error reloading, invalid configuration: cannot start"));
    EXPECT_THAT(manager.Take(), ElementsAre("READY=1"));
}

TEST_F(MainTest, AFatalErrorAfterReadinessEndsTheSourcesBeforeItIsReported) {
    const test::RunHook reloading([this] {
        SetStart([] { throw 42; });
        std::raise(SIGHUP);
    });
    EXPECT_EQ(RunMain(), 1);
    EXPECT_THAT(manager.Take(), ElementsAre("READY=1", "ERRNO=5"));
    EXPECT_EQ(journal.Entries().back(), "destroy Probe");
    const std::vector<std::string> records = log.Lines();
    ASSERT_GE(records.size(), 3U);
    EXPECT_THAT(
        std::vector(records.end() - 3, records.end()),
        ElementsAre("Error halvek: invalid configuration", "Information MsgBusEventSource: MsgBusEventSource stopped",
                    HasSubstr("Warning halvek: Error halvek Main: invalid configuration")));
    EXPECT_THAT(log.Text(), EndsWith("\nError halvek Main: invalid configuration\n"));
}

TEST_F(MainTest, WhatIsNoStandardExceptionIsReportedWithoutARecord) {
    const test::RunHook failing([] { throw 42; });
    EXPECT_EQ(RunMain(), 1);
    EXPECT_THAT(manager.Take(), ElementsAre("READY=1", "ERRNO=5"));
    EXPECT_EQ(journal.Entries().back(), "destroy Probe");
    EXPECT_THAT(log.Text(), EndsWith("\nError halvek Main: unknown exception, doh!\n"));
    EXPECT_THAT(log.Text(), Not(HasSubstr("Warning halvek: Error halvek Main")));
}

}  // namespace

}  // namespace kelto::halvek
