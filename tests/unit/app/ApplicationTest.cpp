#include "kelto/osa/Exception.h"
#include "tests/support/Matchers.h"
#include "tests/unit/app/ApplicationFixture.h"

#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <string>
#include <vector>

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

/** What a source goes through that was listening. */
const std::vector<std::string> wholeLife = {"make Probe",  "configure Probe", "attach to Probe",
                                            "start Probe", "stop Probe",      "destroy Probe"};

/** How it is built and torn down. */
class ApplicationTest : public ApplicationFixture {};

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
    SetActions({.start = [&] { duringStart = Dispositions(); }});
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
    SetActions({.stop = [&] {
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
    EXPECT_EQ(journal.Entries(), wholeLife);
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

TEST_F(ApplicationTest, StoreThatCannotBeReadAtTheStartIsLoggedAndALaterReloadBringsItIntoService) {
    BreakSettings();
    Start();
    EXPECT_EQ(log.Lines().size(), 1U);
    EXPECT_THAT(log.Lines().front(), HasSubstr("Error halvek: Error reloading, invalid configuration: "));
    EXPECT_THAT(log.Lines().front(), HasSubstr(folder.PathOf("settings.ini")));
    EXPECT_THAT(journal.Entries(), IsEmpty());
    WriteSettings("[Events/Source#1]\nType=Probe\n");
    RunWith({SIGHUP, SIGTERM});
    EXPECT_EQ(journal.Entries().back(), "start Probe");
}

TEST_F(ApplicationTest, AMissingStoreAtTheStartIsLoggedAndNoFailure) {
    unlink(folder.PathOf("settings.ini").c_str());
    Start();
    EXPECT_THAT(log.Lines(), ElementsAre("Error halvek: Error reloading, invalid configuration: Cannot read settings " +
                                         folder.PathOf("settings.ini") + ": No such file or directory"));
    EXPECT_NE(Dispositions().front(), SIG_DFL);
}

TEST_F(ApplicationTest, AConfigurationRejectedAtTheStartIsLoggedAndTheStartGoesOn) {
    SetActions({.start = [] { throw osa::Exception("cannot start"); }});
    Start();
    EXPECT_EQ(log.Count("Error halvek: Error reloading, invalid configuration: cannot start"), 1U);
    EXPECT_NE(Dispositions().front(), SIG_DFL);
    SetActions({});
    RunWith({SIGHUP, SIGTERM});
    EXPECT_EQ(log.Count("Error halvek: Error reloading, invalid configuration: cannot start"), 1U);
    EXPECT_EQ(journal.Entries().back(), "start Probe");
}

TEST_F(ApplicationTest, ANonStandardExceptionAtTheStartAbortsItAndTearsDown) {
    SetActions({.start = [] { throw 42; }});
    EXPECT_THAT([this] { Start(); }, FailsWith("invalid configuration"));
    EXPECT_EQ(journal.Entries(), wholeLife);
    EXPECT_EQ(test::OpenDescriptors(), openBefore);
    EXPECT_THAT(Dispositions(), Each(SIG_DFL));
    EXPECT_THAT(log.Text(), Not(HasSubstr("Error reloading")));
}

TEST_F(ApplicationTest, AnyOptionIsUnknownAndEndsTheStartBeforeAnythingIsConfigured) {
    for (const std::string option : {"-x", "--help", "--version"}) {
        log.Clear();
        EXPECT_THAT([&] { Start({option}); }, FailsWith("unknown option")) << option;
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
    EXPECT_THAT([this] { Start({"word", "-x"}); }, FailsWith("unknown option"));
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
    EXPECT_EQ(journal.Entries(), wholeLife);
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
    RunWith({SIGTERM});
    EXPECT_TRUE(log.Has("Information halvek: got: 'S' (83)"));
    application.reset();
}

}  // namespace

}  // namespace kelto::halvek
