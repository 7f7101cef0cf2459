#include "kelto/osa/Exception.h"
#include "kelto/settings/KeltoSettingsClient.h"
#include "tests/fakes/EnvironmentVariable.h"
#include "tests/fakes/TempDir.h"

#include <gmock/gmock.h>

namespace kelto::settings {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::Pair;

class KeltoSettingsClientTest : public testing::Test {
protected:
    const test::TempDir folder;
    const std::string file = folder.Write("settings.ini",
                                          "[Applications/halvek]\nLogLevel=Debug\n"
                                          "[Applications/halvek/Server]\nType=Pipe\n"
                                          "[Applications/other]\nk=v\n"
                                          "[Events/Source#1]\nType=Timer\n"
                                          "[Events/Source#1/Timer]\nInterval.sec=2\n"
                                          "[events/lower]\n"
                                          "[Video/Quickview]\nSnapshotPath=/tmp/snapshot.jpg\n");
    const test::EnvironmentVariable store = {"KELTO_SETTINGS", file};
    KeltoSettingsClient client{OperationMode::Daemon};

    core::IniFile Fetch(const KeltoSettingsClient::Patterns& patterns) {
        core::IniFile ini;
        client.GetSettings(patterns, ini);
        return ini;
    }
};

TEST_F(KeltoSettingsClientTest, FetchesTheGroupsThatMatchOneOfThePatterns) {
    EXPECT_THAT(Fetch({"Applications/halvek*", "Events/*"}).GetGroups(),
                ElementsAre(Key("Applications/halvek"), Key("Applications/halvek/Server"), Key("Events/Source#1"),
                            Key("Events/Source#1/Timer")));
}

TEST_F(KeltoSettingsClientTest, FetchesWholeGroups) {
    EXPECT_THAT(Fetch({"Video/Quickview"}).GetGroups(),
                ElementsAre(Pair("Video/Quickview", ElementsAre(Pair("SnapshotPath", "/tmp/snapshot.jpg")))));
}

TEST_F(KeltoSettingsClientTest, WithoutAPatternOrAMatchItFetchesNothing) {
    EXPECT_THAT(Fetch({}).GetGroups(), IsEmpty());
    EXPECT_THAT(Fetch({"", "Event", "Events", "*/nowhere"}).GetGroups(), IsEmpty());
}

TEST_F(KeltoSettingsClientTest, PatternsAreThoseOfFnmatchWithoutFlags) {
    const struct {
        const char* pattern;
        const char* group;
        bool matches;
    } table[] = {
        {"Events/*", "Events/Source#1/Timer", true},
        {"Events/*", "Events/", true},
        {"Events/*", "Events", false},
        {"Events/*", "events/Source#1", false},
        {"*", "Events/.hidden", true},
        {"Events/*", "Events/.hidden", true},
        {"Events/Source#?", "Events/Source#1", true},
        {"Events/Source#?", "Events/Source#10", false},
        {"Events?Source#1", "Events/Source#1", true},
        {"Events/Source#[12]", "Events/Source#2", true},
        {"Events/Source#[!12]", "Events/Source#2", false},
        {"Events/\\*", "Events/*", true},
        {"Events/\\*", "Events/x", false},
        {"Events/Source#1", "Events/Source#1/Timer", false},
        {"", "", true},
        {"[", "[", true},
    };
    for (const auto& [pattern, group, matches] : table) {
        EXPECT_EQ(KeltoSettingsClient::Matches({pattern}, group), matches) << pattern << " and " << group;
    }
    EXPECT_TRUE(KeltoSettingsClient::Matches({"a", "b"}, "b"));
    EXPECT_FALSE(KeltoSettingsClient::Matches({}, "b"));
}

TEST_F(KeltoSettingsClientTest, ReadsTheStoreAfreshAtEachFetch) {
    EXPECT_EQ(Fetch({"*"}).GetValue("Events/Source#1", "Type"), "Timer");
    folder.Write("settings.ini", "[Events/Source#1]\nType=System\n");
    EXPECT_EQ(Fetch({"*"}).GetValue("Events/Source#1", "Type"), "System");
}

TEST_F(KeltoSettingsClientTest, AddsToWhatTheContainerHolds) {
    core::IniFile ini;
    ini.AddGroup("mine")["k"] = "v";
    ini.AddGroup("Events/Source#1")["Type"] = "old";
    ini.AddGroup("Events/Source#1")["Mine"] = "kept";
    client.GetSettings({"Events/Source#1"}, ini);
    EXPECT_THAT(ini.GetGroups(),
                ElementsAre(Pair("Events/Source#1", ElementsAre(Pair("Mine", "kept"), Pair("Type", "Timer"))),
                            Pair("mine", ElementsAre(Pair("k", "v")))));
}

TEST_F(KeltoSettingsClientTest, AFetchThatFailsThrowsAndLeavesTheContainerAsItIs) {
    folder.Write("settings.ini", "[Events/Source#1]\nType=System\nbad\n");
    core::IniFile ini;
    ini.AddGroup("mine");
    EXPECT_THROW(client.GetSettings({"*"}, ini), osa::Exception);
    EXPECT_THAT(ini.GetGroups(), ElementsAre(Key("mine")));
    const test::EnvironmentVariable nowhere("KELTO_SETTINGS", folder.PathOf("nowhere"));
    EXPECT_THROW(client.GetSettings({"*"}, ini), osa::Exception);
    EXPECT_THAT(ini.GetGroups(), ElementsAre(Key("mine")));
}

TEST_F(KeltoSettingsClientTest, BothModesReadTheSameStore) {
    KeltoSettingsClient lookUp(OperationMode::LookUp);
    EXPECT_EQ(static_cast<int>(client.GetOperationMode()), 0);
    EXPECT_EQ(static_cast<int>(lookUp.GetOperationMode()), 1);
    core::IniFile ini;
    lookUp.GetSettings({"*"}, ini);
    EXPECT_EQ(ini.GetGroups(), Fetch({"*"}).GetGroups());
}

TEST_F(KeltoSettingsClientTest, TellsItsListenerOfEachFetchThatSucceeded) {
    std::vector<std::string> told;
    client.SetFetchListener([&told](const KeltoSettingsClient::Patterns& patterns, const core::IniFile& ini) {
        told.push_back(*patterns.begin() + ":" + std::to_string(ini.GetGroups().size()));
    });
    Fetch({"Events/*"});
    Fetch({"nowhere"});
    folder.Write("settings.ini", "bad\n");
    EXPECT_THROW(Fetch({"*"}), osa::Exception);
    EXPECT_THAT(told, ElementsAre("Events/*:2", "nowhere:0"));
    client.SetFetchListener(nullptr);
    folder.Write("settings.ini", "");
    Fetch({"*"});
    EXPECT_EQ(told.size(), 2U);
}

}  // namespace

}  // namespace kelto::settings
