#include "kelto/core/Logger.h"
#include "kelto/osa/Exception.h"
#include "kelto/settings/KeltoSettingsClient.h"
#include "kelto/settings/LogManager.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/FreshProcess.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"
#include "tests/support/TempDir.h"

#include <memory>

namespace kelto::settings {

namespace {

using core::LogLevel;

constexpr const char* group = "Applications/halvek";

/** From which level on a logger writes. */
LogLevel LevelOf(const char* logger) {
    for (const LogLevel level : {LogLevel::Trace, LogLevel::Debug, LogLevel::Information, LogLevel::Warning}) {
        if (core::Logger::GetLogger(logger).IsEnabled(level)) {
            return level;
        }
    }
    return LogLevel::Error;
}

class LogManagerTest : public testing::Test {
protected:
    LogManagerTest() { core::Logger::SetLevels({}); }
    ~LogManagerTest() override { core::Logger::SetLevels({}); }

    /** Makes these the lines of the group. */
    void WriteGroup(const std::string& lines) const {
        folder.Write("settings.ini", "[Applications/halvek]\n" + lines + "[Events/Source#1]\nLogLevel=Error\n");
    }

    void Fetch(const KeltoSettingsClient::Patterns& patterns) {
        core::IniFile ini;
        client.GetSettings(patterns, ini);
    }

    const test::TempDir folder;
    const test::EnvironmentVariable store = {"KELTO_SETTINGS", folder.PathOf("settings.ini")};
    KeltoSettingsClient client{OperationMode::Daemon};
};

TEST_F(LogManagerTest, AppliesTheGroupsLevelWhenItIsMade) {
    WriteGroup("LogLevel=Debug\n");
    const LogManager manager(&client, group);
    EXPECT_EQ(LevelOf("halvek"), LogLevel::Debug);
    EXPECT_EQ(LevelOf("kelto.osa"), LogLevel::Debug);
}

TEST_F(LogManagerTest, EveryLevelMayBeNamedInAnyCase) {
    const std::pair<const char*, LogLevel> table[] = {{"Trace", LogLevel::Trace},
                                                      {"debug", LogLevel::Debug},
                                                      {"INFORMATION", LogLevel::Information},
                                                      {"Warning", LogLevel::Warning},
                                                      {"eRROR", LogLevel::Error}};
    for (const auto& [name, level] : table) {
        WriteGroup(std::string("LogLevel = ") + name + "\n");
        const LogManager manager(&client, group);
        EXPECT_EQ(LevelOf("halvek"), level) << name;
    }
}

TEST_F(LogManagerTest, ALoggerMayHaveALevelOfItsOwn) {
    WriteGroup("LogLevel=Warning\nLogLevel.halvek=Trace\nLogLevel.kelto.osa=Error\n");
    const LogManager manager(&client, group);
    EXPECT_EQ(LevelOf("halvek"), LogLevel::Trace);
    EXPECT_EQ(LevelOf("kelto.osa"), LogLevel::Error);
    EXPECT_EQ(LevelOf("kelto.msgbus"), LogLevel::Warning);
}

TEST_F(LogManagerTest, WithoutAWordTheLevelIsInformation) {
    core::Logger::SetLevels({.general = LogLevel::Trace, .byLogger = {{"halvek", LogLevel::Error}}});
    WriteGroup("LogLevels=Debug\nloglevel=Debug\nOther=1\n");
    const LogManager manager(&client, group);
    EXPECT_EQ(LevelOf("halvek"), LogLevel::Information);
}

TEST_F(LogManagerTest, WithoutTheGroupTheLevelIsInformation) {
    core::Logger::SetLevels({.general = LogLevel::Trace, .byLogger = {}});
    folder.Write("settings.ini", "[Applications/halvek/Server]\nLogLevel=Error\n");
    const LogManager manager(&client, group);
    EXPECT_EQ(LevelOf("halvek"), LogLevel::Information);
}

TEST_F(LogManagerTest, AppliesTheLevelAgainWheneverTheClientFetchesTheGroup) {
    WriteGroup("LogLevel=Debug\n");
    const LogManager manager(&client, group);
    WriteGroup("LogLevel=Warning\nLogLevel.halvek=Error\n");
    Fetch({"Applications/halvek*", "Events/*"});
    EXPECT_EQ(LevelOf("kelto.osa"), LogLevel::Warning);
    EXPECT_EQ(LevelOf("halvek"), LogLevel::Error);
    WriteGroup("");
    Fetch({group});
    EXPECT_EQ(LevelOf("halvek"), LogLevel::Information);
}

TEST_F(LogManagerTest, AFetchOfOtherGroupsChangesNothing) {
    WriteGroup("LogLevel=Debug\n");
    const LogManager manager(&client, group);
    WriteGroup("LogLevel=Warning\n");
    Fetch({"Events/*", "Applications/halvek/*"});
    EXPECT_EQ(LevelOf("halvek"), LogLevel::Debug);
}

TEST_F(LogManagerTest, AFetchByAnotherClientChangesNothing) {
    WriteGroup("LogLevel=Debug\n");
    const LogManager manager(&client, group);
    WriteGroup("LogLevel=Warning\n");
    KeltoSettingsClient other(OperationMode::LookUp);
    core::IniFile ini;
    other.GetSettings({"*"}, ini);
    EXPECT_EQ(LevelOf("halvek"), LogLevel::Debug);
}

TEST_F(LogManagerTest, AfterItsDestructionAFetchChangesNothing) {
    WriteGroup("LogLevel=Debug\n");
    std::make_unique<LogManager>(&client, group).reset();
    WriteGroup("LogLevel=Warning\n");
    Fetch({"*"});
    EXPECT_EQ(LevelOf("halvek"), LogLevel::Debug);
}

TEST_F(LogManagerTest, AStoreThatCannotBeReadIsNotFatalAndLeavesTheLevels) {
    core::Logger::SetLevels({.general = LogLevel::Warning, .byLogger = {}});
    for (const char* text : {"bad", "[g\n"}) {
        folder.Write("settings.ini", text);
        const LogManager manager(&client, group);
        EXPECT_EQ(LevelOf("halvek"), LogLevel::Warning);
    }
    const test::EnvironmentVariable nowhere("KELTO_SETTINGS", folder.PathOf("nowhere"));
    const LogManager manager(&client, group);
    EXPECT_EQ(LevelOf("halvek"), LogLevel::Warning);
}

TEST_F(LogManagerTest, MadeWithoutAStoreItAppliesTheLevelOnceThereIsOne) {
    const LogManager manager(&client, group);
    WriteGroup("LogLevel=Debug\n");
    Fetch({"*"});
    EXPECT_EQ(LevelOf("halvek"), LogLevel::Debug);
}

TEST_F(LogManagerTest, AFetchThatFailsLeavesTheLevelsAndThrowsAsEver) {
    WriteGroup("LogLevel=Debug\n");
    const LogManager manager(&client, group);
    folder.Write("settings.ini", "[Applications/halvek]\nLogLevel=Error\nbad\n");
    EXPECT_THROW(Fetch({"*"}), osa::Exception);
    EXPECT_EQ(LevelOf("halvek"), LogLevel::Debug);
}

TEST_F(LogManagerTest, AnUnknownLevelIsAWarningAndTheRestCounts) {
    WriteGroup("LogLevel=Loud\nLogLevel.halvek=%s\nLogLevel.kelto.osa=Debug\n");
    const test::LogCapture log(LogLevel::Information);
    const LogManager manager(&client, group);
    EXPECT_THAT(log.Lines(), ElementsAre("Warning kelto.settings: LogLevel names no log level: Loud",
                                         "Warning kelto.settings: LogLevel.halvek names no log level: %s"));
    EXPECT_EQ(LevelOf("halvek"), LogLevel::Information);
    EXPECT_EQ(LevelOf("kelto.osa"), LogLevel::Debug);
}

TEST_F(LogManagerTest, KnownLevelsLogNothing) {
    WriteGroup("LogLevel=Trace\nLogLevel.halvek=Debug\n");
    const test::LogCapture log;
    const LogManager manager(&client, group);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(LogManagerProcess, TheEnvironmentsLevelWinsOverBothKeys) {
    test::ExpectInFreshProcess([] {
        const test::TempDir folder;
        const test::EnvironmentVariable level("KELTO_LOG", "Debug");
        const test::EnvironmentVariable store(
            "KELTO_SETTINGS",
            folder.Write("settings.ini", "[Applications/halvek]\nLogLevel=Error\nLogLevel.halvek=Trace\n"));
        KeltoSettingsClient client(OperationMode::Daemon);
        const LogManager manager(&client, group);
        EXPECT_EQ(LevelOf("halvek"), LogLevel::Debug);
        EXPECT_EQ(LevelOf("kelto.osa"), LogLevel::Debug);
        core::IniFile ini;
        client.GetSettings({"*"}, ini);
        EXPECT_EQ(LevelOf("halvek"), LogLevel::Debug);
    });
}

}  // namespace

}  // namespace kelto::settings
