#include "app/RunDaemon.h"
#include "handler/EventHandler.h"
#include "kelto/core/Logger.h"
#include "kelto/osa/Exception.h"
#include "source/SourceFactory.h"
#include "tests/fakes/FailingAllocation.h"
#include "tests/fakes/NotifySocket.h"
#include "tests/fakes/ProbeSource.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/Journal.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

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

    /** The probe is a source type beside those of the daemon. */
    std::unique_ptr<EventSource> CreateSource(const std::string& type, HalvekEnv* env) {
        return type == "Probe" ? std::make_unique<test::ProbeSource>(journal, "Probe", actions)
                               : CreateEventSource(type, env);
    }

    int RunMain(const std::function<void()>& whenReady) {
        std::string name = "halvek";
        std::array<char*, 2> arguments{name.data(), nullptr};
        return RunDaemon(
            1, arguments.data(), [this](const std::string& type, HalvekEnv* env) { return CreateSource(type, env); },
            whenReady);
    }

    const test::TempDir folder;
    const test::EnvironmentVariable store{"KELTO_SETTINGS", folder.PathOf("settings.ini")};
    const test::EnvironmentVariable level{"KELTO_LOG", "Debug"};
    const test::NotifySocket manager;
    test::LogCapture log{core::LogLevel::Debug};
    test::Journal journal;
    test::ProbeSource::Actions actions;
};

TEST_F(MainTest, AnOrderlyStopAfterReadinessEndsWithStatus0) {
    const auto stopping = [this] {
        EXPECT_THAT(manager.Take(), ElementsAre("READY=1"));
        std::raise(SIGTERM);
    };
    EXPECT_EQ(RunMain(stopping), 0);
    EXPECT_THAT(manager.Take(), ElementsAre());
    EXPECT_EQ(journal.Entries().back(), "destroy Probe");
}

TEST_F(MainTest, AServiceManagerThatCannotBeToldIsAWarningAndTheDaemonRuns) {
    const test::EnvironmentVariable nowhere("NOTIFY_SOCKET", "/nowhere/socket");
    const auto stopping = [] { std::raise(SIGTERM); };
    EXPECT_EQ(RunMain(stopping), 0);
    EXPECT_EQ(log.Count("Warning halvek: The service manager cannot be told READY=1: No such file or directory"), 1U);
}

TEST_F(MainTest, AnOrderlyEndEndsTheLogToo) {
    const auto stopping = [] { std::raise(SIGTERM); };
    const core::Logger& logger = core::Logger::GetLogger("halvek");
    EXPECT_EQ(RunMain(stopping), 0);
    const std::string before = log.Text();
    logger.Error("too late");
    EXPECT_EQ(log.Text(), before);
}

TEST_F(MainTest, AConfigurationRejectedAtTheStartDoesNotKeepItFromReadiness) {
    SetStart([] { throw osa::Exception("cannot start"); });
    const auto stopping = [] { std::raise(SIGTERM); };
    EXPECT_EQ(RunMain(stopping), 0);
    EXPECT_TRUE(log.Has("Error halvek: Error reloading, invalid configuration: cannot start"));
    EXPECT_THAT(manager.Take(), ElementsAre("READY=1"));
}

TEST_F(MainTest, AFatalErrorAfterReadinessEndsTheSourcesBeforeItIsReported) {
    const auto reloading = [this] {
        SetStart([] { throw 42; });
        std::raise(SIGHUP);
    };
    EXPECT_EQ(RunMain(reloading), 1);
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
    const auto failing = [] { throw 42; };
    EXPECT_EQ(RunMain(failing), 1);
    EXPECT_THAT(manager.Take(), ElementsAre("READY=1", "ERRNO=5"));
    EXPECT_EQ(journal.Entries().back(), "destroy Probe");
    EXPECT_THAT(log.Text(), EndsWith("\nError halvek Main: unknown exception, doh!\n"));
    EXPECT_THAT(log.Text(), Not(HasSubstr("Warning halvek: Error halvek Main")));
}

TEST_F(MainTest, AStartWithoutAnyMemoryIsAFatalErrorAsOthersAre) {
    int status = 0;
    {
        const test::FailingAllocation failing(0, SIZE_MAX);
        status = RunMain(nullptr);
    }
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(test::FailingAllocation::HasFailed());
    EXPECT_THAT(manager.Take(), ElementsAre("ERRNO=5"));
    EXPECT_EQ(log.Text(), "Error halvek Main: std::bad_alloc\n");
}

}  // namespace

}  // namespace kelto::halvek
