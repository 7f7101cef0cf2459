#include "env/HalvekEnv.h"
#include "env/HandlerRegistry.h"
#include "event/AlarmEvent.h"
#include "event/TimerEvent.h"
#include "handler/FtpEventHandler.h"
#include "kelto/osa/Exception.h"
#include "kelto/osa/PathUtils.h"
#include "tests/fakes/FakeClock.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/Fifo.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitUntil.h"

#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace kelto::halvek::handler {

namespace {

using Group = core::IniFile::Group;
using Words = std::vector<std::string>;

constexpr const char* starting = "Debug halvek: \t FTPEventHandler::PerformAction Starting FTP command now";
constexpr const char* finished = "Debug halvek: \t FTPEventHandler::PerformAction Finished FTP command now";
const Words notRun = {"ftpput was not run"};

/** Runs against an ftpput that only notes the words that it was started with. */
class FtpEventHandlerTest : public ::testing::Test {
protected:
    FtpEventHandlerTest() { StandIn("printf '%s\\0' \"$@\" >" + wordsFile + "\n"); }

    /** What stands in for ftpput from now on. */
    void StandIn(const std::string& script) const {
        chmod(folder.Write("ftpput", "#!/bin/sh\n" + script).c_str(), 0755);
    }

    /** Sets where the camera says that it keeps its snapshot. */
    void SetSnapshot(const std::string& file) const {
        folder.Write("settings.ini", "[Video/Quickview]\nSnapshotPath=" + file + "\n");
    }

    static Group Complete(const Group& changes = {}) {
        Group group = changes;
        group.insert({{"Server", "host"},
                      {"Username", "camera"},
                      {"Password", "s3cret"},
                      {"BasePath", "/"},
                      {"DestName", "shot.jpg"},
                      {"Attachment", "true"}});
        return group;
    }

    /** Configures the handler with a complete group but for these changes; gives what was logged. */
    std::vector<std::string> Configure(const Group& changes = {}) {
        log.Clear();
        handler.Configure(Complete(changes));
        return log.Lines();
    }

    /** The words that one action starts ftpput with; notRun if it does not start it. The log begins anew. */
    Words Act() {
        event::TimerEvent event(Event::Properties{{"eventType", "Timer"}});
        return ActOn(event);
    }

    Words ActOn(Event& event) {
        log.Clear();
        unlink(wordsFile.c_str());
        handler.HandleEvent(event);
        if (access(wordsFile.c_str(), F_OK) != 0) {
            return notRun;
        }
        std::istringstream stream(test::ReadWholeFile(wordsFile));
        Words words;
        for (std::string word; std::getline(stream, word, '\0');) {
            words.push_back(word);
        }
        return words;
    }

    /** The remote path that an action asks for, the last word but one. */
    std::string RemotePath() {
        const Words words = Act();
        return words.size() == 7 ? words.at(5) : "no command of seven words";
    }

    const test::TempDir folder;
    const std::string wordsFile = folder.PathOf("words");
    const std::string snapshot = folder.PathOf("img.jpg");
    const test::EnvironmentVariable path{"PATH", folder.GetPath() + ":" + getenv("PATH")};
    const test::EnvironmentVariable store{
        "KELTO_SETTINGS", folder.Write("settings.ini", "[Video/Quickview]\nSnapshotPath=" + snapshot + "\n")};
    test::LogCapture log;
    SnapshotLookUp lookUp = LookUpSnapshotPath;
    FtpEventHandler handler{[this] { return lookUp(); }};
};

TEST_F(FtpEventHandlerTest, IsMadeByTheRegistryUnderFtp) {
    HalvekEnv env;
    const std::unique_ptr<EventHandler> made = HandlerRegistry::Instance().CreateHandlerByName("Ftp", &env);
    EXPECT_NE(dynamic_cast<FtpEventHandler*>(made.get()), nullptr);
    EXPECT_EQ(HandlerRegistry::Instance().CreateHandlerByName("FTP", &env), nullptr);
}

TEST_F(FtpEventHandlerTest, AFreshHandlerCountsAsConfiguredAndHasNoFileName) {
    EXPECT_TRUE(handler.IsConfigured());
    EXPECT_EQ(Act(), notRun);
    EXPECT_THAT(log.Lines(), ElementsAre("Error halvek: FtpEventHandler: Illegal filename"));
}

TEST_F(FtpEventHandlerTest, ConfiguringRunsTheBaseFirstAndThenNamesTheFile) {
    EXPECT_THAT(
        Configure({{"EnabledDays", "MTWRFSU"}}),
        ElementsAre("Debug halvek: \t** Contents of Ini group we're configuring", "Debug halvek: \t** Key\t\tValue",
                    "Debug halvek: \t** Attachment\t\ttrue", "Debug halvek: \t** BasePath\t\t/",
                    "Debug halvek: \t** DestName\t\tshot.jpg", "Debug halvek: \t** EnabledDays\t\tMTWRFSU",
                    "Debug halvek: \t** Password\t\ts3cret", "Debug halvek: \t** Server\t\thost",
                    "Debug halvek: \t** Username\t\tcamera", "Information halvek: \tFilterChain: Configured day filter",
                    "Debug halvek: \tThe file we are copying: " + snapshot));
    EXPECT_TRUE(handler.IsConfigured());
}

TEST_F(FtpEventHandlerTest, TheFilterOfTheBaseHolds) {
    Configure({{"EnabledDays", "X"}});
    EXPECT_EQ(Act(), notRun);
    EXPECT_THAT(log.Lines(), Not(Contains(starting)));
}

TEST_F(FtpEventHandlerTest, WithoutAttachmentTheSettingsLibrarysFailureLeavesConfigure) {
    Group group = Complete();
    group.erase("Attachment");
    EXPECT_THAT([&] { handler.Configure(group); }, FailsWith("There is no key Attachment"));
    EXPECT_THAT([&] { handler.Configure({}); }, FailsWith("There is no key Attachment"));
}

TEST_F(FtpEventHandlerTest, AnAttachmentThatIsNotWantedIsRefused) {
    for (const char* const no : {"false", "no", "OFF", "0"}) {
        EXPECT_THAT(
            [&] {
                Configure({{"Attachment", no}});
            },
            FailsWith("FtpEventHandler: No file attachment wanted, what's the point then?"));
    }
    EXPECT_THAT(log.Lines(), Not(Contains(HasSubstr("The file we are copying"))));
}

TEST_F(FtpEventHandlerTest, AnAttachmentThatIsNoBoolIsRefusedByTheSettingsLibrary) {
    for (const std::string garbage : {"", "maybe", "2", "true "}) {
        EXPECT_THAT(
            [&] {
                Configure({{"Attachment", garbage}});
            },
            FailsWith("The value of key Attachment is neither true nor false: " + garbage));
    }
}

TEST_F(FtpEventHandlerTest, AnyFormOfTrueWantsTheAttachment) {
    for (const char* const yes : {"true", "YES", "on", "1"}) {
        EXPECT_NO_THROW(Configure({{"Attachment", yes}}));
    }
}

TEST_F(FtpEventHandlerTest, TheSnapshotIsLookedUpInTheSettingsOfTheMoment) {
    Configure();
    EXPECT_EQ(Act().back(), snapshot);
    SetSnapshot("/media/latest.jpg");
    EXPECT_EQ(Act().back(), snapshot);
    EXPECT_EQ(Configure().back(), "Debug halvek: \tThe file we are copying: /media/latest.jpg");
    EXPECT_EQ(Act().back(), "/media/latest.jpg");
}

/** What is logged behind the base's records. */
std::vector<std::string> OwnRecords(const std::vector<std::string>& records) {
    size_t base = 0;
    while (base < records.size() && records[base].rfind("Debug halvek: \t** ", 0) == 0) {
        ++base;
    }
    return {records.begin() + static_cast<std::ptrdiff_t>(base), records.end()};
}

TEST_F(FtpEventHandlerTest, ALookUpThatFailsIsWarnedOfAndTheDefaultFileTaken) {
    const struct {
        std::string settings;
        std::string failure;
    } table[] = {
        {"[Video/Quickview]\nOther=1\n", "There is no key SnapshotPath in settings group Video/Quickview"},
        {"[Video]\nSnapshotPath=/x\n", "There is no settings group Video/Quickview"},
    };
    for (const auto& [settings, failure] : table) {
        folder.Write("settings.ini", settings);
        FtpEventHandler fresh;
        log.Clear();
        fresh.Configure(Complete());
        EXPECT_THAT(OwnRecords(log.Lines()),
                    ElementsAre("Warning halvek: \tFtpEventHandler: " + failure,
                                "Error halvek: \tNo source file path found, using default",
                                "Debug halvek: \tThe file we are copying: /tmp/snapshot/img2.jpg"));
    }
}

TEST_F(FtpEventHandlerTest, SettingsThatCannotBeReadAreWarnedOfAndTheDefaultFileTaken) {
    const std::string file = folder.PathOf("settings.ini");
    unlink(file.c_str());
    const std::vector<std::string> records = OwnRecords(Configure());
    ASSERT_EQ(records.size(), 3U);
    EXPECT_THAT(records[0], HasSubstr("Warning halvek: \tFtpEventHandler: "));
    EXPECT_THAT(records[0], HasSubstr(file));
    EXPECT_EQ(records[1], "Error halvek: \tNo source file path found, using default");
    EXPECT_EQ(Act().back(), "/tmp/snapshot/img2.jpg");
}

TEST_F(FtpEventHandlerTest, AnEmptySnapshotPathIsAnErrorAndTheDefaultFileTaken) {
    SetSnapshot("");
    EXPECT_THAT(OwnRecords(Configure()),
                ElementsAre("Error halvek: \tNo source file path found, using default",
                            "Debug halvek: \tThe file we are copying: /tmp/snapshot/img2.jpg"));
    EXPECT_EQ(Act().back(), "/tmp/snapshot/img2.jpg");
}

TEST_F(FtpEventHandlerTest, ALookUpThatThrowsWhatNobodyKnowsIsWarnedOfInItsOwnWords) {
    lookUp = []() -> std::string { throw 42; };
    EXPECT_THAT(OwnRecords(Configure()),
                ElementsAre("Warning halvek: \tFtpEventHandler: Error fetching value of SnapshotPath",
                            "Error halvek: \tNo source file path found, using default",
                            "Debug halvek: \tThe file we are copying: /tmp/snapshot/img2.jpg"));
}

TEST_F(FtpEventHandlerTest, AnyStandardExceptionOfTheLookUpIsWarnedOfWithItsText) {
    lookUp = []() -> std::string { throw std::runtime_error("100% worn out"); };
    EXPECT_EQ(OwnRecords(Configure()).front(), "Warning halvek: \tFtpEventHandler: 100% worn out");
}

TEST_F(FtpEventHandlerTest, AFileThatWasFoundOnceOutlivesALookUpThatFails) {
    Configure();
    lookUp = []() -> std::string { throw osa::Exception("gone"); };
    EXPECT_THAT(OwnRecords(Configure()), ElementsAre("Warning halvek: \tFtpEventHandler: gone",
                                                     "Debug halvek: \tThe file we are copying: " + snapshot));
}

TEST_F(FtpEventHandlerTest, ARemoteFolderThatIsNotThereOnTheCameraBecomesTheRootAsItIsMeant) {
    ASSERT_NE(access("/upload", F_OK), 0);
    EXPECT_EQ(Configure({{"BasePath", "/upload"}}).back(),
              "Warning halvek: \tNo destination path found, using default");
    EXPECT_EQ(RemotePath(), "/shot.jpg");
}

TEST_F(FtpEventHandlerTest, WithoutARemoteFolderTheFileGoesToTheRoot) {
    EXPECT_EQ(Configure({{"BasePath", ""}}).back(), "Warning halvek: \tNo destination path found, using default");
    EXPECT_EQ(RemotePath(), "/shot.jpg");
    Group group = Complete();
    group.erase("BasePath");
    FtpEventHandler fresh;
    log.Clear();
    fresh.Configure(group);
    EXPECT_EQ(log.Lines().back(), "Warning halvek: \tNo destination path found, using default");
}

TEST_F(FtpEventHandlerTest, TheRootItselfIsTakenWithoutAWarning) {
    for (const char* const root : {"/", "//", "/."}) {
        EXPECT_EQ(Configure({{"BasePath", root}}).back(), "Debug halvek: \tThe file we are copying: " + snapshot);
        EXPECT_EQ(RemotePath(), "/shot.jpg");
    }
}

TEST_F(FtpEventHandlerTest, ARemoteFolderThatIsThereOnTheCameraTooIsResolvedThere) {
    const std::string real = osa::PathUtils::RealPath(folder.GetPath());
    const std::string link = folder.PathOf("link");
    ASSERT_EQ(symlink(real.c_str(), link.c_str()), 0);
    for (const std::string& given : {real, real + "/", real + "/./", link}) {
        Configure({{"BasePath", given}});
        EXPECT_EQ(RemotePath(), real + "/shot.jpg") << given;
    }
    Configure({{"BasePath", "."}});
    EXPECT_EQ(RemotePath(), osa::PathUtils::RealPath(".") + "/shot.jpg");
}

/** Only a refused configuration leaves a folder as it was given: a resolved one is never empty and ends in no "/". */
TEST_F(FtpEventHandlerTest, AnUnresolvedFolderIsPutBeforeTheNameAsItStands) {
    const struct {
        const char* folder;
        const char* remotePath;
    } table[] = {
        {"", "shot.jpg"}, {"/", "/shot.jpg"}, {"//", "///shot.jpg"}, {"/up", "/up/shot.jpg"}, {"/up/", "/up//shot.jpg"},
    };
    for (const auto& [given, remotePath] : table) {
        EXPECT_THROW(Configure({{"BasePath", given}, {"Attachment", "no"}}), osa::Exception);
        EXPECT_NE(Act(), notRun);
        EXPECT_THAT(log.Lines(), Contains(std::string("Debug halvek: \tRemote fullpath  ") + remotePath));
    }
}

TEST_F(FtpEventHandlerTest, AnActionLogsTheTransactionAndRunsTheCommand) {
    const std::string real = osa::PathUtils::RealPath(folder.GetPath());
    Configure({{"BasePath", real}});
    const Words words = Act();
    EXPECT_THAT(words, ElementsAre("-u", "camera", "-p", "s3cret", "host", real + "/shot.jpg", snapshot));
    EXPECT_THAT(log.Lines(),
                ElementsAre("Debug halvek: FTP transaction info:", "Debug halvek: \tRemote server    host",
                            "Debug halvek: \tUsername         camera", "Debug halvek: \tLocal Filename   " + snapshot,
                            "Debug halvek: \tRemote Path      " + real, "Debug halvek: \tRemote Filename  shot.jpg",
                            "Debug halvek: \tRemote fullpath  " + real + "/shot.jpg", starting, finished));
}

TEST_F(FtpEventHandlerTest, TheCommandRunsBetweenItsTwoRecords) {
    StandIn("echo ftpput at work >&2\n");
    Configure();
    Act();
    const std::vector<std::string> records = log.Lines();
    ASSERT_GE(records.size(), 2U);
    EXPECT_EQ(records[records.size() - 2], starting + std::string("\nftpput at work"));
    EXPECT_EQ(records.back(), finished);
}

TEST_F(FtpEventHandlerTest, WhatTheEventHoldsDoesNotMatter) {
    Configure();
    event::AlarmEvent alarm(Event::Properties{{"alarmIndex", "7"}, {"DestName", "other.jpg"}});
    Event bare(Event::Properties{});
    const Words words = Act();
    EXPECT_NE(words, notRun);
    EXPECT_EQ(ActOn(alarm), words);
    EXPECT_EQ(ActOn(bare), words);
}

TEST_F(FtpEventHandlerTest, TheFileNameIsExpandedAtEveryActionInLocalTime) {
    test::FakeClock clock("2025-03-05 07:08:09", "CET-1CEST");
    Configure({{"DestName", "door/%Y%m%d-%H%M%S-%%.jpg"}});
    EXPECT_EQ(RemotePath(), "/door/20250305-070809-%.jpg");
    clock.Set("2025-07-31 23:59:58");
    EXPECT_EQ(RemotePath(), "/door/20250731-235958-%.jpg");
    EXPECT_TRUE(log.Has("Debug halvek: \tRemote Filename  door/20250731-235958-%.jpg"));
}

TEST_F(FtpEventHandlerTest, WithoutAFileNameEveryActionFailsAndNothingIsRun) {
    Group group = Complete();
    group.erase("DestName");
    handler.Configure(group);
    for (int action = 0; action < 2; ++action) {
        EXPECT_EQ(Act(), notRun);
        EXPECT_THAT(log.Lines(), ElementsAre("Error halvek: FtpEventHandler: Illegal filename"));
    }
    Configure();
    EXPECT_EQ(RemotePath(), "/shot.jpg");
}

TEST_F(FtpEventHandlerTest, AFileNameThatCannotBeExpandedIsIllegal) {
    Configure({{"DestName", std::string(100000, 'x')}});
    EXPECT_EQ(Act(), notRun);
    EXPECT_THAT(log.Lines(), ElementsAre("Error halvek: FtpEventHandler: Illegal filename"));
}

TEST_F(FtpEventHandlerTest, ABlankSplitsTheCommandIntoMoreWordsAsItIsMeant) {
    Configure({{"Username", "my camera"}});
    EXPECT_EQ(Act(), (Words{"-u", "my", "camera", "-p", "s3cret", "host", "/shot.jpg", snapshot}));
    Configure({{"Password", "two words"}});
    EXPECT_EQ(Act(), (Words{"-u", "camera", "-p", "two", "words", "host", "/shot.jpg", snapshot}));
    Configure({{"DestName", "my shot.jpg"}});
    EXPECT_EQ(Act(), (Words{"-u", "camera", "-p", "s3cret", "host", "/my", "shot.jpg", snapshot}));
    SetSnapshot("/tmp/my snapshot.jpg");
    Configure();
    EXPECT_EQ(Act(), (Words{"-u", "camera", "-p", "s3cret", "host", "/shot.jpg", "/tmp/my", "snapshot.jpg"}));
}

TEST_F(FtpEventHandlerTest, AnEmptyValueLeavesItsWordOutAsItIsMeant) {
    handler.Configure({{"Attachment", "1"}, {"DestName", "shot.jpg"}});
    EXPECT_EQ(Act(), (Words{"-u", "-p", "/shot.jpg", snapshot}));
}

TEST_F(FtpEventHandlerTest, TheShellReadsTheValuesAsItIsMeant) {
    Configure({{"Username", "$((6*7))"}, {"Password", "'a b'"}, {"Server", "ho\\st"}});
    EXPECT_EQ(Act(), (Words{"-u", "42", "-p", "a b", "host", "/shot.jpg", snapshot}));
}

/** The name that makes the whole command so many characters long. */
std::string NameForLength(size_t length, const std::string& snapshot) {
    const std::string around = "ftpput -u camera -p s3cret host / " + snapshot;
    return std::string(length - around.size(), 'n');
}

TEST_F(FtpEventHandlerTest, ACommandOf255CharactersIsWhole) {
    const std::string name = NameForLength(255, snapshot);
    Configure({{"DestName", name}});
    EXPECT_EQ(Act(), (Words{"-u", "camera", "-p", "s3cret", "host", "/" + name, snapshot}));
}

TEST_F(FtpEventHandlerTest, ALongerCommandLosesTheLocalFileFirstAsItIsMeant) {
    std::string name = NameForLength(256, snapshot);
    Configure({{"DestName", name}});
    const std::string cutByOne = snapshot.substr(0, snapshot.size() - 1);
    EXPECT_EQ(Act(), (Words{"-u", "camera", "-p", "s3cret", "host", "/" + name, cutByOne}));

    name = NameForLength(255 + snapshot.size(), snapshot);
    Configure({{"DestName", name}});
    EXPECT_EQ(Act(), (Words{"-u", "camera", "-p", "s3cret", "host", "/" + name}));

    const std::string longName(1000, 'n');
    Configure({{"DestName", longName}});
    const size_t before = std::string("ftpput -u camera -p s3cret host /").size();
    EXPECT_EQ(Act(), (Words{"-u", "camera", "-p", "s3cret", "host", "/" + longName.substr(0, 255 - before)}));
    EXPECT_TRUE(log.Has("Debug halvek: \tRemote fullpath  /" + longName));
}

TEST_F(FtpEventHandlerTest, HowTheCommandEndsIsNotLookedAt) {
    Configure();
    for (const char* const end : {"exit 0\n", "exit 1\n", "exit 255\n", "kill -KILL $$\n", "kill -SEGV $$\n"}) {
        StandIn(end);
        Act();
        const std::vector<std::string> records = log.Lines();
        ASSERT_EQ(records.size(), 9U) << end;
        EXPECT_THAT(records[7], HasSubstr(starting));
        EXPECT_EQ(records[8], finished);
    }
}

TEST_F(FtpEventHandlerTest, ACommandThatIsNotThereIsNotLookedAtEither) {
    const test::EnvironmentVariable nowhere("PATH", folder.PathOf("nowhere"));
    Configure();
    EXPECT_EQ(Act(), notRun);
    const std::vector<std::string> records = log.Lines();
    ASSERT_EQ(records.size(), 9U);
    EXPECT_THAT(records[7], HasSubstr("ftpput: not found"));
    EXPECT_EQ(records[8], finished);
}

TEST_F(FtpEventHandlerTest, ThePasswordStandsInNoRecordOfAnAction) {
    const struct {
        const char* name;
        const char* exit;
    } table[] = {{"shot.jpg", "exit 0\n"}, {"shot.jpg", "exit 1\n"}, {"", "exit 0\n"}};
    for (const auto& [name, exit] : table) {
        StandIn(exit);
        Configure({{"DestName", name}});
        EXPECT_THAT(log.Text(), HasSubstr("s3cret"));
        Act();
        EXPECT_THAT(log.Lines(), Not(IsEmpty()));
        EXPECT_THAT(log.Text(), Not(HasSubstr("s3cret")));
    }
}

TEST_F(FtpEventHandlerTest, AnActionReachedUnconfiguredLogsAnErrorAndRunsNothing) {
    class Unconfigured : public FtpEventHandler {
    public:
        bool IsConfigured() const override { return false; }
    } unconfigured;
    unconfigured.Configure(Complete());
    log.Clear();
    event::TimerEvent event(Event::Properties{});
    EXPECT_NO_THROW(unconfigured.PerformAction(event));
    EXPECT_THAT(log.Lines(), ElementsAre("Error halvek: FtpEventHandler: not configured"));
    EXPECT_NE(access(wordsFile.c_str(), F_OK), 0);
}

TEST_F(FtpEventHandlerTest, TwoSourcesUploadSideBySide) {
    const test::Fifo leave(folder.PathOf("leave"));
    StandIn("echo running >>" + wordsFile + "\nread line <" + leave.GetPath() + "\n");
    Configure();
    const auto act = [this] {
        event::TimerEvent event(Event::Properties{});
        handler.HandleEvent(event);
    };
    std::vector<std::future<void>> sources;
    for (int source = 0; source < 2; ++source) {
        sources.push_back(std::async(std::launch::async, act));
    }
    EXPECT_TRUE(test::WaitUntil([this] {
        return access(wordsFile.c_str(), F_OK) == 0 && test::ReadWholeFile(wordsFile) == "running\nrunning\n";
    }));
    EXPECT_EQ(log.Count(finished), 0U);
    leave.Write("\n\n");
    for (std::future<void>& source : sources) {
        source.get();
    }
    EXPECT_EQ(log.Count(finished), 2U);
}

}  // namespace

}  // namespace kelto::halvek::handler
