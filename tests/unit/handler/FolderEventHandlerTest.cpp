#include "env/HandlerRegistry.h"
#include "event/TimerEvent.h"
#include "handler/VassaApiException.h"
#include "kelto/osa/Exception.h"
#include "tests/fakes/FakeClock.h"
#include "tests/support/Matchers.h"
#include "tests/unit/handler/FolderFixture.h"

#include <climits>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

namespace kelto::halvek::handler {

namespace {

namespace fs = std::filesystem;
using Group = core::IniFile::Group;

constexpr const char* illegal = "Error halvek: FolderEventHandler: Illegal file name or path";
constexpr const char* unknown = "Error halvek: FolderEventHandler: Error, unknown exception caught";

class FolderEventHandlerTest : public FolderFixture {
protected:
    std::string Written(const std::string& name) const { return test::ReadWholeFile(InTarget(name)); }

    /** How often the text is in the log, wherever in a line. */
    int CountInLog(const std::string& text) const {
        const std::string all = log.Text();
        int count = 0;
        for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) {
            ++count;
        }
        return count;
    }

    /** The text of what a configuration with these keys throws, and "no exception" if it throws none. */
    std::string Refusal(const Group& keys) {
        try {
            handler.Configure(keys);
        } catch (const osa::Exception& exception) {
            return exception.what();
        }
        return "no exception";
    }
};

TEST_F(FolderEventHandlerTest, IsMadeByTheRegistryUnderFolder) {
    const std::unique_ptr<EventHandler> made = HandlerRegistry::Instance().CreateHandlerByName("Folder", nullptr);
    EXPECT_NE(dynamic_cast<FolderEventHandler*>(made.get()), nullptr);
}

TEST_F(FolderEventHandlerTest, IsAlwaysConfigured) {
    EXPECT_TRUE(handler.IsConfigured());
    EXPECT_THROW(handler.Configure({}), osa::Exception);
    EXPECT_TRUE(handler.IsConfigured());
}

TEST_F(FolderEventHandlerTest, ConfiguringRunsTheBaseFirstAndEndsWithTheSnapshotsPath) {
    log.Clear();
    handler.Configure({{"Attachment", "true"}, {"EnabledDays", "MTWRFSU"}});
    EXPECT_THAT(Lines(), ElementsAre("Debug halvek: \t** Contents of Ini group we're configuring",
                                     "Debug halvek: \t** Key\t\tValue", "Debug halvek: \t** Attachment\t\ttrue",
                                     "Debug halvek: \t** EnabledDays\t\tMTWRFSU",
                                     "Information halvek: \tFilterChain: Configured day filter",
                                     "Debug halvek: \tThe file we are copying: " + source));
}

TEST_F(FolderEventHandlerTest, TheFilterApplies) {
    const test::FakeClock clock("2025-03-05 12:00:00");
    Configure({{"EnabledTimes", "1300-1400"}});
    Act();
    EXPECT_THAT(Names(), IsEmpty());
}

TEST_F(FolderEventHandlerTest, WithoutAnAttachmentItIsRefusedBeforeTheSnapshotIsLookedUp) {
    const test::EnvironmentVariable nowhere("KELTO_SETTINGS", folder.PathOf("nowhere"));
    EXPECT_EQ(Refusal({{"Attachment", "false"}}),
              "FolderEventHandler: No file attachment wanted, what's the point then?");
    EXPECT_EQ(Refusal({}), "There is no key Attachment");
    EXPECT_THAT(Refusal({{"Attachment", "maybe"}}), HasSubstr("maybe"));
    EXPECT_THAT(Refusal({{"Attachment", ""}}), HasSubstr("Attachment"));
}

TEST_F(FolderEventHandlerTest, WithoutSettingsThatNameTheSnapshotItIsRefused) {
    const Group wanted = {{"Attachment", "yes"}};
    folder.Write("settings.ini", "[Video/Quickview]\nsnapshotpath=x\n[Video]\nSnapshotPath=x\n");
    EXPECT_EQ(Refusal(wanted), "There is no key SnapshotPath in settings group Video/Quickview");
    folder.Write("settings.ini", "[Video/Quickview/Low]\nSnapshotPath=x\n");
    EXPECT_EQ(Refusal(wanted), "There is no settings group Video/Quickview");
    const test::EnvironmentVariable nowhere("KELTO_SETTINGS", folder.PathOf("nowhere"));
    EXPECT_THAT(Refusal(wanted), HasSubstr(folder.PathOf("nowhere")));
}

TEST_F(FolderEventHandlerTest, AnEmptySnapshotPathIsLoggedAndRefused) {
    NameSnapshot("");
    log.Clear();
    EXPECT_EQ(Refusal({{"Attachment", "1"}}), "FolderEventHandler: the path of the source file was not found");
    EXPECT_EQ(Lines().back(), "Debug halvek: \tThe file we are copying: ");
}

TEST_F(FolderEventHandlerTest, AKeyThatIsAbsentKeepsWhatWasThere) {
    Configure({{"LimitSize", "1k"}});
    handler.Configure({{"Attachment", "true"}});
    Act();
    // There was a limit, or an empty folder would not matter.
    EXPECT_EQ(Lines().back(), "Error halvek: FolderEventHandler: can't properly check directory size restraints");
    handler.Configure({{"Attachment", "true"}, {"LimitSize", ""}});
    Act();
    EXPECT_THAT(Names(), ElementsAre("new.jpg"));
}

TEST_F(FolderEventHandlerTest, WhatWasReadBeforeARefusalIsKept) {
    EXPECT_THROW(handler.Configure({{"DestinationPath", target}, {"DestName", "early.jpg"}}), osa::Exception);
    handler.Configure({{"Attachment", "true"}});
    Act();
    EXPECT_THAT(Names(), ElementsAre("early.jpg"));
}

TEST_F(FolderEventHandlerTest, TheSnapshotsPathIsLookedUpAtEachConfiguration) {
    Configure();
    NameSnapshot(folder.Write("other.jpg", "other"));
    Act();
    EXPECT_EQ(Written("new.jpg"), picture);
    Configure();
    Act();
    EXPECT_EQ(Written("new.jpg"), "other");
}

TEST_F(FolderEventHandlerTest, SavesTheSnapshotAndLogsItsSteps) {
    Configure();
    Act();
    EXPECT_THAT(Lines(), ElementsAre(noLimit, Writing("new.jpg"), succeeded));
    EXPECT_EQ(Written("new.jpg"), picture);
    EXPECT_THAT(Names(), ElementsAre("new.jpg"));
}

TEST_F(FolderEventHandlerTest, ReplacesAFileOfThatName) {
    Put("new.jpg", 50000, 1000);
    Configure();
    Act();
    EXPECT_EQ(Written("new.jpg"), picture);
}

TEST_F(FolderEventHandlerTest, TheNameIsExpandedWithTheLocalTimeOfTheAction) {
    test::FakeClock clock("2025-03-05 07:08:09", "CET-1CEST");
    Configure({{"DestName", "%Y%m%d-%H%M%S_100%%.jpg"}});
    Act();
    clock.Set("2040-12-31 23:59:59");
    Act();
    EXPECT_THAT(Names(), ElementsAre("20250305-070809_100%.jpg", "20401231-235959_100%.jpg"));
}

TEST_F(FolderEventHandlerTest, ANameMayLeadIntoASubFolder) {
    fs::create_directory(InTarget("sub"));
    Configure({{"DestName", "sub/new.jpg"}});
    Act();
    EXPECT_THAT(Names(), ElementsAre("sub", "sub/new.jpg"));
}

TEST_F(FolderEventHandlerTest, BlanksInFolderAndNameDoNotMatterWithoutALimit) {
    fs::create_directory(InTarget("my card"));
    Configure({{"DestinationPath", InTarget("my card")}, {"DestName", "front door.jpg"}});
    Act();
    EXPECT_THAT(Names(), ElementsAre("my card", "my card/front door.jpg"));
}

TEST_F(FolderEventHandlerTest, WithoutAFolderASnapshotOrANameItIsAnErrorUntilTheyAreThere) {
    Configure({{"DestinationPath", InTarget("later")}});
    Act();
    EXPECT_THAT(Lines(), ElementsAre(illegal));
    fs::create_directory(InTarget("later"));
    fs::rename(source, source + ".away");
    Act();
    EXPECT_THAT(Lines(), ElementsAre(illegal));
    fs::rename(source + ".away", source);
    Act();
    EXPECT_THAT(Names(), ElementsAre("later", "later/new.jpg"));
    for (const Group& keys : {Group{{"DestName", ""}}, Group{{"DestinationPath", ""}}}) {
        Configure(keys);
        Act();
        EXPECT_THAT(Lines(), ElementsAre(illegal));
    }
}

TEST_F(FolderEventHandlerTest, AFreshOneHasNothingToSave) {
    Act();
    EXPECT_THAT(Lines(), ElementsAre(illegal));
}

TEST_F(FolderEventHandlerTest, ADestinationThatIsNoFolderFailsTwice) {
    const std::string file = folder.Write("target/file", "x");
    Configure({{"DestinationPath", file}});
    Act();
    EXPECT_EQ(Lines().back(), reallyFailed);
    EXPECT_THAT(Names(), ElementsAre("file"));
}

TEST_F(FolderEventHandlerTest, ItWritesToWhereALinkLeads) {
    fs::create_directory(InTarget("real"));
    fs::create_directory_symlink("real", InTarget("link"));
    const std::string linkedSource = folder.PathOf("linked.jpg");
    fs::create_symlink(source, linkedSource);
    NameSnapshot(linkedSource);
    Configure({{"DestinationPath", InTarget("./link//")}});
    Act();
    EXPECT_THAT(Lines(), ElementsAre(noLimit, Writing("real/new.jpg"), succeeded));
}

TEST_F(FolderEventHandlerTest, TheResolvedPathsPersistFromOneActionToTheNext) {
    for (const char* name : {"one", "two"}) {
        fs::create_directory(InTarget(name));
    }
    const std::string linkedSource = folder.PathOf("linked.jpg");
    fs::create_symlink(source, linkedSource);
    fs::create_directory_symlink("one", InTarget("link"));
    NameSnapshot(linkedSource);
    Configure({{"DestinationPath", InTarget("link")}});
    Act();
    fs::remove(linkedSource);
    fs::create_symlink(folder.Write("other.jpg", "other"), linkedSource);
    fs::remove(InTarget("link"));
    fs::create_directory_symlink("two", InTarget("link"));
    fs::remove(InTarget("one/new.jpg"));
    Act();
    EXPECT_THAT(Names(), ElementsAre("link", "one", "one/new.jpg", "two"));
    EXPECT_EQ(Written("one/new.jpg"), picture);
    Configure({{"DestinationPath", InTarget("link")}});
    Act();
    EXPECT_EQ(Written("two/new.jpg"), "other");
}

TEST_F(FolderEventHandlerTest, PathsAreNotKeptFromAnActionThatFoundOneMissing) {
    for (const char* name : {"one", "two"}) {
        fs::create_directory(InTarget(name));
    }
    fs::create_directory_symlink("one", InTarget("link"));
    NameSnapshot(folder.PathOf("later.jpg"));
    Configure({{"DestinationPath", InTarget("link")}});
    Act();
    EXPECT_THAT(Lines(), ElementsAre(illegal));
    folder.Write("later.jpg", "later");
    fs::remove(InTarget("link"));
    fs::create_directory_symlink("two", InTarget("link"));
    Act();
    EXPECT_THAT(Names(), ElementsAre("link", "one", "two", "two/new.jpg"));
}

TEST_F(FolderEventHandlerTest, ANameOf255BytesIsWritten) {
    const std::string name = std::string(NAME_MAX - 4, 'x') + ".jpg";
    Configure({{"DestName", name}});
    Act();
    EXPECT_THAT(Lines(), ElementsAre(noLimit, Writing(name), succeeded));
    EXPECT_THAT(Names(), ElementsAre(name));
}

TEST_F(FolderEventHandlerTest, ANameThatIsRefusedGetsOneRetryUnderAShortOne) {
    const std::string name = "12:30:45 front door" + std::string(255, 'x') + ".jpg";
    Configure({{"DestName", name}});
    Act();
    EXPECT_THAT(Lines(), ElementsAre(noLimit, Writing(name), retried, Writing("12_30_45.jpg"), succeeded));
    EXPECT_THAT(Names(), ElementsAre("12_30_45.jpg"));
    EXPECT_EQ(Written("12_30_45.jpg"), picture);
}

TEST_F(FolderEventHandlerTest, AShortNameThatIsRefusedTooIsTheEnd) {
    const std::string extension = "." + std::string(255, 'x');
    Configure({{"DestName", "123456789" + extension}});
    Act();
    EXPECT_THAT(Lines(), ElementsAre(noLimit, Writing("123456789" + extension), retried,
                                     Writing("12345678" + extension), reallyFailed));
    EXPECT_THAT(Names(), IsEmpty());
}

TEST_F(FolderEventHandlerTest, AnUnknownExceptionInTheMiddleLeavesTheHandlerUsable) {
    test::MemoryMount media("/media");
    fs::create_directory("/media/sd");
    Configure({{"DestinationPath", "/media/sd"}});
    recording.initStatus = VASSA_CORE_INVALID_ARGUMENT;
    Act();
    EXPECT_THAT(Lines(), ElementsAre(unknown));
    recording.initStatus = VASSA_CORE_OK;
    recording.deinitStatus = VASSA_CORE_UNKNOWN_COOKIE;
    Act();
    EXPECT_THAT(Lines(), ElementsAre(unknown));
    EXPECT_TRUE(fs::is_empty("/media/sd"));
    recording.deinitStatus = VASSA_CORE_OK;
    Act();
    EXPECT_EQ(test::ReadWholeFile("/media/sd/new.jpg"), picture);
}

TEST_F(FolderEventHandlerTest, WhileTheCardIsRecordedToNothingIsWrittenOrDeletedAndOneErrorSaysSo) {
    const std::string forbidden = "Error halvek: Local recording disables saving snapshots to the SD card.";
    test::MemoryMount media("/media");
    fs::create_directory("/media/sd");
    std::ofstream("/media/sd/old.jpg") << "old";
    Configure({{"DestinationPath", "/media/../media/sd/"}, {"LimitSize", "1"}});
    recording.summary = {0, 1, 0, 0};
    Act();
    EXPECT_THAT(Lines(), ElementsAre(forbidden));
    // It comes before everything else that may be wrong.
    Configure({{"DestinationPath", "/media/sd"}, {"DestName", ""}});
    Act();
    EXPECT_THAT(Lines(), ElementsAre(forbidden));
    EXPECT_TRUE(fs::exists("/media/sd/old.jpg"));
    EXPECT_FALSE(fs::exists("/media/sd/new.jpg"));
    recording.summary = {};
    Configure({{"DestinationPath", "/media/sd"}, {"LimitSize", "0"}});
    Act();
    EXPECT_EQ(test::ReadWholeFile("/media/sd/new.jpg"), picture);
}

TEST_F(FolderEventHandlerTest, ASubFolderOfTheCardIsMeantToBeUncheckedAndALinkToTheCardIsChecked) {
    test::MemoryMount media("/media");
    fs::create_directories("/media/sd/pics");
    fs::create_directory_symlink("/media/sd", InTarget("card"));
    recording.summary = {1, 1, 0, 0};
    Configure({{"DestinationPath", "/media/sd/pics"}});
    Act();
    EXPECT_THAT(recording.calls, IsEmpty());
    EXPECT_EQ(test::ReadWholeFile("/media/sd/pics/new.jpg"), picture);
    Configure({{"DestinationPath", InTarget("card")}});
    Act();
    EXPECT_FALSE(fs::exists("/media/sd/new.jpg"));
    EXPECT_THAT(recording.calls, ElementsAre("init(0)", "summary(77,recording_information,0,0,0,0)", "deinit(77)"));
}

TEST_F(FolderEventHandlerTest, ACardMountedElsewhereAndOnlyLinkedToIsMeantToBeUnchecked) {
    test::MemoryMount media("/media");
    fs::create_directory_symlink(target, "/media/sd");
    recording.summary = {1, 1, 0, 0};
    Configure({{"DestinationPath", "/media/sd"}});
    Act();
    EXPECT_THAT(Names(), ElementsAre("new.jpg"));
}

TEST_F(FolderEventHandlerTest, MayActOnTwoThreadsAtOnce) {
    Put("old.jpg", 10, 1000);
    fs::create_directory_symlink(target, folder.PathOf("link"));
    Configure({{"DestinationPath", folder.PathOf("link")}, {"LimitSize", "1M"}});
    std::vector<std::thread> threads;
    for (int number = 0; number < 2; ++number) {
        threads.emplace_back([this] {
            for (int round = 0; round < 20; ++round) {
                event::TimerEvent event(Event::Properties{{"eventType", "Test"}});
                handler.HandleEvent(event);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    // A file that comes and goes while du looks makes it complain in the middle of the log.
    EXPECT_EQ(CountInLog(succeeded), 40);
    EXPECT_THAT(Names(), ElementsAre("new.jpg", "old.jpg"));
    EXPECT_EQ(Written("new.jpg"), picture);
}

}  // namespace

}  // namespace kelto::halvek::handler
