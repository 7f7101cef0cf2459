#include "kelto/osa/Exception.h"
#include "kelto/settings/KeltoSettingsClient.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/Matchers.h"
#include "tests/support/TempDir.h"

#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

namespace kelto::settings {

namespace {

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

/** Look-ups keep what they found last; these are about when that counts. */
class LookUpTest : public testing::Test {
protected:
    const test::TempDir folder;
    const test::EnvironmentVariable store = {"KELTO_SETTINGS", folder.GetPath()};

    static core::IniFile::Groups LookUp(const KeltoSettingsClient::Patterns& patterns) {
        core::IniFile ini;
        KeltoSettingsClient(OperationMode::LookUp).GetSettings(patterns, ini);
        return ini.GetGroups();
    }
};

TEST_F(LookUpTest, ALookUpSeesEveryChangeAtOnceHoweverSmall) {
    for (int number = 0; number < 1000; ++number) {
        const std::string text = std::to_string(1000 + number);
        folder.Write("a.ini", "[a]\nk=" + text + "\n");
        ASSERT_THAT(LookUp({"a"}), ElementsAre(Pair("a", ElementsAre(Pair("k", text)))));
        ASSERT_THAT(LookUp({"a"}), ElementsAre(Pair("a", ElementsAre(Pair("k", text)))));
    }
}

TEST_F(LookUpTest, ALookUpForOtherGroupsFindsThose) {
    folder.Write("a.ini", "[a]\nk=1\n[b]\nk=2\n");
    EXPECT_THAT(LookUp({"a"}), ElementsAre(Key("a")));
    EXPECT_THAT(LookUp({"b"}), ElementsAre(Key("b")));
    EXPECT_THAT(LookUp({"*"}), ElementsAre(Key("a"), Key("b")));
}

TEST_F(LookUpTest, ALookUpSeesFilesComeAndGo) {
    folder.Write("a.ini", "[a]\nk=1\n");
    EXPECT_THAT(LookUp({"*"}), ElementsAre(Pair("a", ElementsAre(Pair("k", "1")))));
    const std::string later = folder.Write("b.ini", "[a]\nk=2\n");
    EXPECT_THAT(LookUp({"*"}), ElementsAre(Pair("a", ElementsAre(Pair("k", "2")))));
    ASSERT_EQ(std::rename(later.c_str(), (folder.GetPath() + "/0.ini").c_str()), 0);
    EXPECT_THAT(LookUp({"*"}), ElementsAre(Pair("a", ElementsAre(Pair("k", "1")))));
}

TEST_F(LookUpTest, ALookUpIntoSettingsThatHaveBecomeMalformedOrGoneFails) {
    const std::string path = folder.Write("a.ini", "[a]\nk=1\n");
    EXPECT_THAT(LookUp({"a"}), ElementsAre(Key("a")));
    folder.Write("a.ini", "[a]\nk:1\n");
    for (int again = 0; again < 2; ++again) {
        EXPECT_THROW(LookUp({"a"}), osa::Exception);
    }
    folder.Write("a.ini", "[a]\nk=1\n");
    EXPECT_THAT(LookUp({"a"}), ElementsAre(Key("a")));
    const test::EnvironmentVariable gone("KELTO_SETTINGS", path + ".gone");
    EXPECT_THROW(LookUp({"a"}), osa::Exception);
}

TEST_F(LookUpTest, SettingsThatAreServedByAPipeAreTakenFromItOnceEachTime) {
    const std::string pipe = folder.GetPath() + "/pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const test::EnvironmentVariable served("KELTO_SETTINGS", pipe);
    for (const char* const text : {"[a]\nk=1\n", "[a]\nk=1\n", "[a]\nk=2\n"}) {
        std::thread server([&] { std::ofstream(pipe) << text; });
        EXPECT_THAT(LookUp({"a"}), ElementsAre(Pair("a", ElementsAre(Pair("k", std::string(1, text[6]))))));
        server.join();
    }
}

}  // namespace

}  // namespace kelto::settings
