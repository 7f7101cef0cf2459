#include "app/Application.h"
#include "handler/EventHandler.h"
#include "kelto/osa/Exception.h"
#include "source/SourceFactory.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/ProbeSource.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Journal.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitUntil.h"

#include <fcntl.h>
#include <getopt.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <thread>

namespace {

/** Called by each pipe. */
std::function<void()> onPipe;

}  // namespace

// The program's own definition stands before the C library's.
extern "C" int pipe(int* ends) noexcept {
    if (onPipe) {
        onPipe();
    }
    return pipe2(ends, 0);
}

namespace kelto::halvek {

namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StrEq;
using ::testing::ThrowsMessage;
using SignalHandler = void (*)(int);

/** The actions of the four signals that the daemon catches. */
std::vector<SignalHandler> Dispositions() {
    std::vector<SignalHandler> handlers;
    for (const int number : {SIGHUP, SIGINT, SIGTERM, SIGALRM}) {
        struct sigaction action {};
        sigaction(number, nullptr, &action);
        handlers.push_back(action.sa_handler);
    }
    return handlers;
}

class ApplicationTest : public ::testing::Test {
protected:
    ApplicationTest() {
        setenv("KELTO_SETTINGS", folder.PathOf("settings.ini").c_str(), 1);
        WriteSettings("[Events/Source#1]\nType=Probe\n");
    }

    ~ApplicationTest() override {
        application.reset();
        unsetenv("KELTO_SETTINGS");
    }

    void WriteSettings(const std::string& text, const std::string& level = "Debug") const {
        folder.Write("settings.ini", "[Applications/halvek]\nLogLevel=" + level + "\n" + text);
    }

    void BreakSettings() const { folder.Write("settings.ini", "no settings\n"); }

    /** Has the source type "Probe" do something. */
    void SetActions(const test::ProbeSource::Actions& newActions) { actions = newActions; }

    void Start(std::vector<std::string> words = {}) {
        words.insert(words.begin(), "halvek");
        std::vector<char*> arguments;
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        optind = 0;  // A start that failed may have left off in the middle of its options.
        application = std::make_unique<Application>(
            static_cast<int>(words.size()), arguments.data(),
            [this](const std::string& type, HalvekEnv* env) { return CreateSource(type, env); });
    }

    /** Runs the loop; what it throws. */
    std::string FailureOfRun() {
        try {
            application->Run();
        } catch (const osa::Exception& exception) {
            return exception.what();
        }
        return "none";
    }

    /** The descriptor of the pipe to the process itself that is open for that. */
    int PipeEnd(int accessMode) const {
        for (const int fd : test::OpenDescriptors()) {
            struct stat status {};
            fstat(fd, &status);
            if (!std::binary_search(openBefore.begin(), openBefore.end(), fd) && S_ISFIFO(status.st_mode) &&
                (fcntl(fd, F_GETFL) & O_ACCMODE) == accessMode) {
                return fd;
            }
        }
        return -1;
    }

    /** The records of the signals and the run loop. */
    std::vector<std::string> LoopRecords() const {
        std::vector<std::string> records;
        for (const std::string& line : log.Lines()) {
            for (const char* part : {"signal caught", "got: ", "run state", "run complete", "shutting down"}) {
                if (line.find(part) != std::string::npos) {
                    records.push_back(line);
                }
            }
        }
        return records;
    }

    /** The local time of a record. */
    double SecondsOf(const std::string& text) const {
        for (const test::LogRecord& record : log.Records()) {
            tm local{};
            if (record.text == text && strptime(record.time.c_str(), "%Y-%m-%dT%H:%M:%S", &local) != nullptr) {
                return static_cast<double>(timegm(&local));
            }
        }
        throw std::runtime_error("no record: " + text);
    }

    /** The probe is a source type beside those of the daemon. */
    std::unique_ptr<EventSource> CreateSource(const std::string& type, HalvekEnv* env) {
        return type == "Probe" ? std::make_unique<test::ProbeSource>(journal, "Probe", actions)
                               : CreateEventSource(type, env);
    }

    size_t CountConfigurations() const { return log.Count("Information halvek: Configuring..."); }

    const test::LeftDescriptorsClosed leftDescriptorsClosed;
    const test::TempDir folder;
    test::LogCapture log{core::LogLevel::Debug};
    test::Journal journal;
    test::ProbeSource::Actions actions;
    const std::vector<int> openBefore = test::OpenDescriptors();
    std::unique_ptr<Application> application;
};

TEST_F(ApplicationTest, IsConfiguredAndListensWhenItIsBuilt) {
    Start();
    EXPECT_THAT(journal.Entries(), ElementsAre("make Probe", "configure Probe", "attach to Probe", "start Probe"));
    EXPECT_EQ(CountConfigurations(), 1U);
}

TEST_F(ApplicationTest, FetchesItsOwnGroupsAndThoseOfTheEvents) {
    folder.Write("settings.ini",
                 "[Applications/halvek]\nx=1\n[Applications/halvek/a/b]\n[Applications/halvek2]\n[Applications/halve]\n"
                 "[Events/Source#1/Timer]\n[Events]\n[events/x]\n[Video/Quickview]\n");
    Start();
    EXPECT_TRUE(
        log.Has("Information halvek: Current INI:\n[Applications/halvek]\nx=1\n[Applications/halvek/a/b]\n"
                "[Applications/halvek2]\n[Events/Source#1/Timer]"));
}

TEST_F(ApplicationTest, AReloadKeepsNothingOfTheSettingsBefore) {
    Start();
    folder.Write("settings.ini", "[Applications/halvek]\ny=1\n");
    application->Reload();
    EXPECT_EQ(journal.Entries().back(), "destroy Probe");
    EXPECT_TRUE(log.Has("Information halvek: Current INI:\n[Applications/halvek]\ny=1"));
}

TEST_F(ApplicationTest, TheLogLevelOfTheSettingsCountsFromTheStartAndFollowsAReload) {
    WriteSettings("", "Warning");
    Start();
    EXPECT_EQ(CountConfigurations(), 0U);
    WriteSettings("", "Information");
    application->Reload();
    EXPECT_EQ(CountConfigurations(), 1U);
}

TEST_F(ApplicationTest, SignalsHaveTheirDefaultActionsDuringTheStart) {
    std::vector<SignalHandler> duringStart;
    SetActions({.configure = {}, .start = [&] { duringStart = Dispositions(); }, .stop = {}});
    Start();
    EXPECT_EQ(duringStart.size(), 4U);
    EXPECT_THAT(duringStart, Each(SIG_DFL));
}

TEST_F(ApplicationTest, SignalsHaveTheirDefaultActionsUntilThePipeForThemIsMade) {
    std::vector<SignalHandler> atPipe;
    onPipe = [&] { atPipe = Dispositions(); };
    Start();
    onPipe = nullptr;
    EXPECT_EQ(atPipe.size(), 4U);
    EXPECT_THAT(atPipe, Each(SIG_DFL));
}

TEST_F(ApplicationTest, AllFourSignalsAreCaughtByOneHandlerOnceItIsBuilt) {
    Start();
    const std::vector<SignalHandler> handlers = Dispositions();
    EXPECT_NE(handlers.front(), SIG_DFL);
    EXPECT_THAT(handlers, Each(handlers.front()));
}

TEST_F(ApplicationTest, OnlyTheWriteEndOfThePipeToItselfDoesNotBlock) {
    Start();
    EXPECT_EQ(fcntl(PipeEnd(O_WRONLY), F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(fcntl(PipeEnd(O_RDONLY), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(ApplicationTest, TheTearDownGivesSignalsBackAndClosesThePipeBeforeItStopsTheSources) {
    std::vector<SignalHandler> atStop;
    std::vector<int> pipeAtStop;
    SetActions({.configure = {}, .start = {}, .stop = [&] {
                    atStop = Dispositions();
                    pipeAtStop = {PipeEnd(O_RDONLY), PipeEnd(O_WRONLY)};
                }});
    Start();
    ASSERT_NE(PipeEnd(O_RDONLY), -1);
    application.reset();
    EXPECT_EQ(atStop.size(), 4U);
    EXPECT_THAT(atStop, Each(SIG_DFL));
    EXPECT_THAT(pipeAtStop, ElementsAre(-1, -1));
    EXPECT_EQ(test::OpenDescriptors(), openBefore);
    EXPECT_THAT(journal.Entries(), ElementsAre("make Probe", "configure Probe", "attach to Probe", "start Probe",
                                               "stop Probe", "destroy Probe"));
}

TEST_F(ApplicationTest, CanBeBuiltAgainAfterItsTearDown) {
    for (size_t round = 1; round <= 3; ++round) {
        Start();
        std::raise(SIGTERM);
        application->Run();
        application.reset();
        EXPECT_EQ(log.Count("Information halvek: run complete"), round);
        EXPECT_EQ(test::OpenDescriptors(), openBefore);
    }
}

TEST_F(ApplicationTest, EachHangUpReloadsOnceAndTheTerminationEndsTheLoop) {
    Start();
    std::raise(SIGHUP);
    std::raise(SIGHUP);
    std::raise(SIGTERM);
    application->Run();
    EXPECT_THAT(LoopRecords(),
                ElementsAre("Debug halvek: signal caught: 1", "Debug halvek: signal caught: 1",
                            "Debug halvek: signal caught: 15", "Information halvek: Dropping to run state",
                            "Information halvek: got: 'R' (82)", "Information halvek: got: 'R' (82)",
                            "Information halvek: got: 'S' (83)", "Information halvek: shutting down event monitor",
                            "Information halvek: run complete"));
    EXPECT_EQ(CountConfigurations(), 3U);
}

TEST_F(ApplicationTest, TheInterruptEndsTheLoopToo) {
    Start();
    std::raise(SIGINT);
    application->Run();
    EXPECT_THAT(LoopRecords(),
                ElementsAre("Debug halvek: signal caught: 2", "Information halvek: Dropping to run state",
                            "Information halvek: got: 'S' (83)", "Information halvek: shutting down event monitor",
                            "Information halvek: run complete"));
}

TEST_F(ApplicationTest, TheLoopLeavesTheSourcesToTheDestructor) {
    Start();
    std::raise(SIGTERM);
    application->Run();
    EXPECT_EQ(journal.Entries().back(), "start Probe");
}

TEST_F(ApplicationTest, TheAlarmIsLoggedAndChangesNothing) {
    Start();
    std::raise(SIGALRM);
    std::raise(SIGTERM);
    application->Run();
    EXPECT_TRUE(log.Has("Debug halvek: signal caught: 14"));
    EXPECT_EQ(log.Text().find("got: 'R'"), std::string::npos);
    EXPECT_EQ(CountConfigurations(), 1U);
}

TEST_F(ApplicationTest, AnyOtherCharacterInThePipeEndsTheLoop) {
    Start();
    ASSERT_EQ(write(PipeEnd(O_WRONLY), "r", 1), 1);
    application->Run();
    EXPECT_TRUE(log.Has("Information halvek: got: 'r' (114)"));
    EXPECT_EQ(CountConfigurations(), 1U);
}

TEST_F(ApplicationTest, SignalsThatArriveWhileItWaitsAreSeenAtOnce) {
    Start();
    const pthread_t loop = pthread_self();
    std::thread sender([&] {
        EXPECT_TRUE(log.WaitFor("Information halvek: Dropping to run state"));
        kill(getpid(), SIGHUP);
        EXPECT_TRUE(log.WaitFor("Information halvek: Configuring...", 2));
        pthread_kill(loop, SIGALRM);
        EXPECT_TRUE(log.WaitFor("Debug halvek: signal caught: 14"));
        pthread_kill(loop, SIGHUP);
        EXPECT_TRUE(log.WaitFor("Information halvek: Configuring...", 3));
        kill(getpid(), SIGTERM);
    });
    application->Run();
    sender.join();
    EXPECT_EQ(CountConfigurations(), 3U);
}

TEST_F(ApplicationTest, SignalsThatArriveDuringAReloadAreHandledInOrderAfterwards) {
    int starts = 0;
    SetActions({.configure = {},
                .start =
                    [&] {
                        if (++starts == 2) {
                            std::raise(SIGHUP);
                            std::raise(SIGALRM);
                            std::raise(SIGHUP);
                            std::raise(SIGTERM);
                            journal.Note("signals sent");
                        }
                    },
                .stop = {}});
    Start();
    std::raise(SIGHUP);
    application->Run();
    EXPECT_EQ(starts, 4);
    EXPECT_THAT(LoopRecords(),
                ElementsAre("Debug halvek: signal caught: 1", "Information halvek: Dropping to run state",
                            "Information halvek: got: 'R' (82)", "Debug halvek: signal caught: 1",
                            "Debug halvek: signal caught: 14", "Debug halvek: signal caught: 1",
                            "Debug halvek: signal caught: 15", "Information halvek: got: 'R' (82)",
                            "Information halvek: got: 'R' (82)", "Information halvek: got: 'S' (83)",
                            "Information halvek: shutting down event monitor", "Information halvek: run complete"));
}

TEST_F(ApplicationTest, AFullPipeDropsTheSignalWithoutBlocking) {
    WriteSettings("", "Warning");
    Start();
    const int capacity = fcntl(PipeEnd(O_WRONLY), F_SETPIPE_SZ, 4096);
    for (int i = 0; i < capacity + 10; ++i) {
        application->HandleSignal(SIGTERM);
    }
    application->HandleSignal(SIGHUP);
    application->Run();
    char waiting = '\0';
    int count = 0;
    fcntl(PipeEnd(O_RDONLY), F_SETFL, O_NONBLOCK);
    while (read(PipeEnd(O_RDONLY), &waiting, 1) == 1) {
        EXPECT_EQ(waiting, 'S');
        ++count;
    }
    EXPECT_EQ(count, capacity - 1);
}

TEST_F(ApplicationTest, TheSignalHandlerKeepsErrno) {
    WriteSettings("", "Warning");
    Start();
    const int capacity = fcntl(PipeEnd(O_WRONLY), F_SETPIPE_SZ, 4096);
    for (int i = 0; i < capacity + 1; ++i) {
        errno = ENOTTY;
        std::raise(SIGTERM);
        ASSERT_EQ(errno, ENOTTY);
    }
}

TEST_F(ApplicationTest, TheSignalHandlerDoesNothingWithoutAnApplication) {
    Start();
    const SignalHandler handler = Dispositions().front();
    application.reset();
    log.Clear();
    handler(SIGHUP);
    handler(SIGTERM);
    EXPECT_EQ(log.Text(), "");
}

TEST_F(ApplicationTest, StoreThatCannotBeReadAtTheStartIsLoggedAndALaterReloadBringsItIntoService) {
    BreakSettings();
    Start();
    EXPECT_EQ(log.Lines().size(), 1U);
    EXPECT_THAT(log.Lines().front(), HasSubstr("Error halvek: Error reloading, invalid configuration: "));
    EXPECT_THAT(log.Lines().front(), HasSubstr(folder.PathOf("settings.ini")));
    EXPECT_THAT(journal.Entries(), IsEmpty());
    WriteSettings("[Events/Source#1]\nType=Probe\n");
    std::raise(SIGHUP);
    std::raise(SIGTERM);
    application->Run();
    EXPECT_EQ(journal.Entries().back(), "start Probe");
}

TEST_F(ApplicationTest, AMissingStoreAtTheStartIsLoggedAndNoFailure) {
    unlink(folder.PathOf("settings.ini").c_str());
    Start();
    EXPECT_THAT(log.Lines(), ElementsAre("Error halvek: Error reloading, invalid configuration: Cannot read settings " +
                                         folder.PathOf("settings.ini") + ": No such file or directory"));
    EXPECT_NE(Dispositions().front(), SIG_DFL);
}

TEST_F(ApplicationTest, AStoreThatCannotBeReadOnAReloadLeavesTheSourcesRunning) {
    Start();
    BreakSettings();
    journal.Clear();
    std::raise(SIGHUP);
    std::raise(SIGTERM);
    application->Run();
    EXPECT_THAT(journal.Entries(), IsEmpty());
    EXPECT_EQ(CountConfigurations(), 1U);
    EXPECT_THAT(log.Text(), HasSubstr("Error halvek: Error reloading, invalid configuration: "));
    EXPECT_TRUE(log.Has("Information halvek: run complete"));
}

TEST_F(ApplicationTest, AConfigurationRejectedAtTheStartIsLoggedAndTheStartGoesOn) {
    SetActions({.configure = {}, .start = [] { throw osa::Exception("cannot start"); }, .stop = {}});
    Start();
    EXPECT_EQ(log.Count("Error halvek: Error reloading, invalid configuration: cannot start"), 1U);
    EXPECT_NE(Dispositions().front(), SIG_DFL);
    SetActions({});
    std::raise(SIGHUP);
    std::raise(SIGTERM);
    application->Run();
    EXPECT_EQ(log.Count("Error halvek: Error reloading, invalid configuration: cannot start"), 1U);
    EXPECT_EQ(journal.Entries().back(), "start Probe");
}

TEST_F(ApplicationTest, AConfigurationRejectedOnAReloadIsLoggedAndTheLoopGoesOn) {
    Start();
    SetActions({.configure = {}, .start = [] { throw std::runtime_error("cannot start"); }, .stop = {}});
    std::raise(SIGHUP);
    std::raise(SIGHUP);
    std::raise(SIGTERM);
    application->Run();
    EXPECT_EQ(log.Count("Error halvek: Error reloading, invalid configuration: cannot start"), 2U);
    EXPECT_TRUE(log.Has("Information halvek: run complete"));
}

TEST_F(ApplicationTest, ANonStandardExceptionAtTheStartAbortsItAndTearsDown) {
    SetActions({.configure = {}, .start = [] { throw 42; }, .stop = {}});
    EXPECT_THAT([this] { Start(); }, ThrowsMessage<osa::Exception>(StrEq("invalid configuration")));
    EXPECT_THAT(journal.Entries(), ElementsAre("make Probe", "configure Probe", "attach to Probe", "start Probe",
                                               "stop Probe", "destroy Probe"));
    EXPECT_EQ(test::OpenDescriptors(), openBefore);
    EXPECT_THAT(Dispositions(), Each(SIG_DFL));
    EXPECT_THAT(log.Text(), ::testing::Not(HasSubstr("Error reloading")));
}

TEST_F(ApplicationTest, ANonStandardExceptionOnAReloadLeavesTheLoopWithAnError) {
    Start();
    SetActions({.configure = {}, .start = [] { throw 42; }, .stop = {}});
    std::raise(SIGHUP);
    std::raise(SIGTERM);
    EXPECT_EQ(FailureOfRun(), "invalid configuration");
    EXPECT_EQ(log.Lines().back(), "Error halvek: invalid configuration");
    EXPECT_FALSE(log.Has("Information halvek: run complete"));
}

TEST_F(ApplicationTest, AnyOptionIsUnknownAndEndsTheStartBeforeAnythingIsConfigured) {
    for (const std::string option : {"-x", "--help", "--version"}) {
        log.Clear();
        EXPECT_THAT([&] { Start({option}); }, ThrowsMessage<osa::Exception>(StrEq("unknown option"))) << option;
        EXPECT_THAT(log.Text(), HasSubstr("Usage: cmdline\n"));
        EXPECT_EQ(CountConfigurations(), 0U);
        EXPECT_EQ(test::OpenDescriptors(), openBefore);
        EXPECT_THAT(Dispositions(), Each(SIG_DFL));
    }
}

TEST_F(ApplicationTest, WordsThatAreNoOptionsAreIgnored) {
    EXPECT_NO_THROW(Start({"word", "-", "--", "-x"}));
    EXPECT_EQ(CountConfigurations(), 1U);
}

TEST_F(ApplicationTest, AnOptionBehindAWordIsUnknownToo) {
    EXPECT_THAT([this] { Start({"word", "-x"}); }, ThrowsMessage<osa::Exception>(StrEq("unknown option")));
}

TEST_F(ApplicationTest, WithoutDescriptorsForThePipeTheStartFailsAndTearsDown) {
    // Once with descriptors: a sanitizer opens some when it meets a class for the first time.
    Start();
    application.reset();
    journal.Clear();
    log.Clear();
    std::string failure;
    try {
        // The message bus keeps one, reading the settings takes one at a time; the pipe needs two at once.
        const test::FewDescriptorsLeft two(2);
        Start();
    } catch (const osa::Exception& exception) {
        failure = exception.what();
    }
    EXPECT_EQ(failure, "pipe failed: Too many open files");
    EXPECT_THAT(journal.Entries(), ElementsAre("make Probe", "configure Probe", "attach to Probe", "start Probe",
                                               "stop Probe", "destroy Probe"));
    EXPECT_EQ(test::OpenDescriptors(), openBefore);
    EXPECT_THAT(Dispositions(), Each(SIG_DFL));
}

TEST_F(ApplicationTest, APipeOfWhichOneEndFitsNoSetIsAFailedStartAndIsClosed) {
    // The message bus takes one, the pipe's read end the last one that fits.
    const test::LowDescriptorsTaken taken(FD_SETSIZE - 2);
    const std::vector<int> open = test::OpenDescriptors();
    EXPECT_THROW(Start(), osa::Exception);
    EXPECT_EQ(test::OpenDescriptors(), open);
    EXPECT_EQ(journal.Entries().back(), "destroy Probe");
    EXPECT_THAT(Dispositions(), Each(SIG_DFL));
}

TEST_F(ApplicationTest, ThePipeMayHaveTheLastDescriptorThatFitsASet) {
    // The message bus takes the one before.
    const test::LowDescriptorsTaken taken(FD_SETSIZE - 3);
    Start();
    ASSERT_EQ(PipeEnd(O_WRONLY), FD_SETSIZE - 1);
    std::raise(SIGTERM);
    application->Run();
    EXPECT_TRUE(log.Has("Information halvek: got: 'S' (83)"));
    application.reset();
}

TEST_F(ApplicationTest, TheLoopsRecordsCountByTheClocksAsTheyAreNow) {
    test::FakeClock clock("2025-03-30 01:50:00", "CET-1CEST,M3.5.0,M10.5.0/3");
    Start();
    clock.Set("2025-03-30 03:10:00");
    std::raise(SIGTERM);
    application->Run();
    const double later = SecondsOf("got: 'S' (83)") - SecondsOf("Dropping to run state");
    EXPECT_GE(later, 3600);
    EXPECT_LT(later, 3660);
}

TEST_F(ApplicationTest, AFailureToWaitIsLoggedByTheLoopAndLeavesIt) {
    Start();
    const int readEnd = PipeEnd(O_RDONLY);
    close(readEnd);
    EXPECT_EQ(FailureOfRun(), "select failed");
    EXPECT_EQ(log.Lines().back(), "Error halvek: select failed");
    ASSERT_EQ(open("/dev/null", O_RDONLY | O_CLOEXEC), readEnd);
}

}  // namespace

}  // namespace kelto::halvek
