#include "kelto/osa/Exception.h"
#include "tests/fakes/FakeClock.h"
#include "tests/support/Matchers.h"
#include "tests/unit/app/ApplicationFixture.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kelto::halvek {

namespace {

/** What the loop makes of signals. */
class ApplicationLoopTest : public ApplicationFixture {
protected:
    /** Runs the loop; what it throws. */
    std::string FailureOfRun() {
        try {
            application->Run();
        } catch (const osa::Exception& exception) {
            return exception.what();
        }
        return "none";
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
};

TEST_F(ApplicationLoopTest, EachHangUpReloadsOnceAndTheTerminationEndsTheLoop) {
    Start();
    RunWith({SIGHUP, SIGHUP, SIGTERM});
    EXPECT_THAT(LoopRecords(),
                ElementsAre("Debug halvek: signal caught: 1", "Debug halvek: signal caught: 1",
                            "Debug halvek: signal caught: 15", "Information halvek: Dropping to run state",
                            "Information halvek: got: 'R' (82)", "Information halvek: got: 'R' (82)",
                            "Information halvek: got: 'S' (83)", "Information halvek: shutting down event monitor",
                            "Information halvek: run complete"));
    EXPECT_EQ(CountConfigurations(), 3U);
}

TEST_F(ApplicationLoopTest, TheInterruptEndsTheLoopToo) {
    Start();
    RunWith({SIGINT});
    EXPECT_THAT(LoopRecords(),
                ElementsAre("Debug halvek: signal caught: 2", "Information halvek: Dropping to run state",
                            "Information halvek: got: 'S' (83)", "Information halvek: shutting down event monitor",
                            "Information halvek: run complete"));
}

TEST_F(ApplicationLoopTest, TheLoopLeavesTheSourcesToTheDestructor) {
    Start();
    RunWith({SIGTERM});
    EXPECT_EQ(journal.Entries().back(), "start Probe");
}

TEST_F(ApplicationLoopTest, TheAlarmIsLoggedAndChangesNothing) {
    Start();
    RunWith({SIGALRM, SIGTERM});
    EXPECT_TRUE(log.Has("Debug halvek: signal caught: 14"));
    EXPECT_EQ(log.Text().find("got: 'R'"), std::string::npos);
    EXPECT_EQ(CountConfigurations(), 1U);
}

TEST_F(ApplicationLoopTest, AnyOtherCharacterInThePipeEndsTheLoop) {
    Start();
    ASSERT_EQ(write(PipeEnd(O_WRONLY), "r", 1), 1);
    application->Run();
    EXPECT_TRUE(log.Has("Information halvek: got: 'r' (114)"));
    EXPECT_EQ(CountConfigurations(), 1U);
}

TEST_F(ApplicationLoopTest, SignalsThatArriveWhileItWaitsAreSeenAtOnce) {
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

TEST_F(ApplicationLoopTest, SignalsThatArriveDuringAReloadAreHandledInOrderAfterwards) {
    int starts = 0;
    SetActions({.start = [&] {
        if (++starts == 2) {
            Raise({SIGHUP, SIGALRM, SIGHUP, SIGTERM});
            journal.Note("signals sent");
        }
    }});
    Start();
    RunWith({SIGHUP});
    EXPECT_EQ(starts, 4);
    EXPECT_THAT(LoopRecords(),
                ElementsAre("Debug halvek: signal caught: 1", "Information halvek: Dropping to run state",
                            "Information halvek: got: 'R' (82)", "Debug halvek: signal caught: 1",
                            "Debug halvek: signal caught: 14", "Debug halvek: signal caught: 1",
                            "Debug halvek: signal caught: 15", "Information halvek: got: 'R' (82)",
                            "Information halvek: got: 'R' (82)", "Information halvek: got: 'S' (83)",
                            "Information halvek: shutting down event monitor", "Information halvek: run complete"));
}

TEST_F(ApplicationLoopTest, AFullPipeDropsTheSignalWithoutBlocking) {
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

TEST_F(ApplicationLoopTest, TheSignalHandlerKeepsErrno) {
    WriteSettings("", "Warning");
    Start();
    const int capacity = fcntl(PipeEnd(O_WRONLY), F_SETPIPE_SZ, 4096);
    for (int i = 0; i < capacity + 1; ++i) {
        errno = ENOTTY;
        std::raise(SIGTERM);
        ASSERT_EQ(errno, ENOTTY);
    }
}

TEST_F(ApplicationLoopTest, TheSignalHandlerDoesNothingWithoutAnApplication) {
    Start();
    const SignalHandler handler = Dispositions().front();
    application.reset();
    log.Clear();
    handler(SIGHUP);
    handler(SIGTERM);
    EXPECT_EQ(log.Text(), "");
}

TEST_F(ApplicationLoopTest, AStoreThatCannotBeReadOnAReloadLeavesTheSourcesRunning) {
    Start();
    BreakSettings();
    journal.Clear();
    RunWith({SIGHUP, SIGTERM});
    EXPECT_THAT(journal.Entries(), IsEmpty());
    EXPECT_EQ(CountConfigurations(), 1U);
    EXPECT_THAT(log.Text(), HasSubstr("Error halvek: Error reloading, invalid configuration: "));
    EXPECT_TRUE(log.Has("Information halvek: run complete"));
}

TEST_F(ApplicationLoopTest, AConfigurationRejectedOnAReloadIsLoggedAndTheLoopGoesOn) {
    Start();
    SetActions({.start = [] { throw std::runtime_error("cannot start"); }});
    RunWith({SIGHUP, SIGHUP, SIGTERM});
    EXPECT_EQ(log.Count("Error halvek: Error reloading, invalid configuration: cannot start"), 2U);
    EXPECT_TRUE(log.Has("Information halvek: run complete"));
}

TEST_F(ApplicationLoopTest, ANonStandardExceptionOnAReloadLeavesTheLoopWithAnError) {
    Start();
    SetActions({.start = [] { throw 42; }});
    Raise({SIGHUP, SIGTERM});
    EXPECT_EQ(FailureOfRun(), "invalid configuration");
    EXPECT_EQ(log.Lines().back(), "Error halvek: invalid configuration");
    EXPECT_FALSE(log.Has("Information halvek: run complete"));
}

TEST_F(ApplicationLoopTest, TheLoopsRecordsCountByTheClocksAsTheyAreNow) {
    test::FakeClock clock("2025-03-30 01:50:00", "CET-1CEST,M3.5.0,M10.5.0/3");
    Start();
    clock.Set("2025-03-30 03:10:00");
    RunWith({SIGTERM});
    const double later = SecondsOf("got: 'S' (83)") - SecondsOf("Dropping to run state");
    EXPECT_GE(later, 3600);
    EXPECT_LT(later, 3660);
}

TEST_F(ApplicationLoopTest, AFailureToWaitIsLoggedByTheLoopAndLeavesIt) {
    Start();
    const int readEnd = PipeEnd(O_RDONLY);
    close(readEnd);
    EXPECT_EQ(FailureOfRun(), "select failed");
    EXPECT_EQ(log.Lines().back(), "Error halvek: select failed");
    ASSERT_EQ(open("/dev/null", O_RDONLY | O_CLOEXEC), readEnd);
}

}  // namespace

}  // namespace kelto::halvek
