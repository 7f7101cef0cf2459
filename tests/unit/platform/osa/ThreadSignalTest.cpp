#include "tests/fakes/IntendedWaits.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"
#include "tests/unit/platform/osa/SignalledThread.h"

#include <sys/select.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <thread>
#include <vector>

namespace kelto::osa {

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

/** Waits for nothing; the error that ends it. */
int ErrorOfAnEndlessSelect() {
    return select(0, nullptr, nullptr, nullptr, nullptr) < 0 ? errno : 0;
}

TEST(ThreadSignal, InterruptsASelect) {
    const Disposition alarm(SIGALRM, Count);
    std::atomic<int> error = 0;
    Worker worker([&] { error = ErrorOfAnEndlessSelect(); });
    EXPECT_TRUE(worker.EndsBySignal());
    EXPECT_EQ(error, EINTR);
}

TEST(ThreadSignal, IsRepeatedByJoinForASelectThatWasEnteredTooLate) {
    const Disposition alarm(SIGALRM, Count);
    std::atomic<int> error = 0;
    Worker worker([&] {
        test::WaitUntil([] { return caught > 0; });
        error = ErrorOfAnEndlessSelect();
    });
    worker.StartAndWaitUntilInside();
    worker.Signal();
    ASSERT_TRUE(test::WaitUntil([] { return caught > 0; }));
    EXPECT_TRUE(worker.JoinsInTime());
    EXPECT_EQ(error, EINTR);
    EXPECT_GE(caught, 2);
}

/** When a join sends its first seven signals to a thread that takes no notice of them, from its beginning. */
std::vector<Clock::duration> TimesOfAJoin() {
    const Disposition alarm(SIGALRM, Count);
    std::vector<Clock::time_point> times;
    Worker worker([&] {
        test::WaitUntil([] { return caught > 0; });
        for (int repeat = 0; repeat < 7; ++repeat) {
            if (select(0, nullptr, nullptr, nullptr, nullptr) < 0) {
                times.push_back(Clock::now());
            }
        }
    });
    worker.StartAndWaitUntilInside();
    worker.Signal();
    EXPECT_TRUE(test::WaitUntil([] { return caught > 0; }));
    const Clock::time_point begin = Clock::now();
    EXPECT_TRUE(worker.JoinsInTime());
    std::vector<Clock::duration> sinceBegin;
    for (const Clock::time_point time : times) {
        sinceBegin.push_back(time - begin);
    }
    return sinceBegin;
}

TEST(ThreadSignal, IsRepeatedByJoinAfter10MillisecondsDoublingTo100) {
    const std::vector<milliseconds> pauses = {10ms, 20ms, 40ms, 80ms, 100ms, 100ms, 100ms};
    test::ExpectWaits(pauses, [&](const test::IntendedWaits&) {
        const std::vector<Clock::duration> times = TimesOfAJoin();
        ASSERT_EQ(times.size(), pauses.size());
        Clock::duration earliest{};
        for (size_t repeat = 0; repeat < pauses.size(); ++repeat) {
            earliest += pauses[repeat];
            EXPECT_GE(times[repeat], earliest) << repeat;
        }
    });
}

TEST(ThreadSignal, AJoinWithoutASignalSendsNone) {
    const Disposition alarm(SIGALRM, Count);
    std::atomic<int> result = -2;
    Worker worker([&] {
        timeval timeout{0, 300000};
        result = select(0, nullptr, nullptr, nullptr, &timeout);
    });
    worker.Start();
    worker.Join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(caught, 0);
}

TEST(ThreadSignal, AnAlarmAtItsDefaultDoesNotEndTheProcess) {
    const Disposition alarm(SIGALRM, SIG_DFL);
    std::atomic<int> error = 0;
    Worker worker([&] { error = ErrorOfAnEndlessSelect(); });
    EXPECT_TRUE(worker.EndsBySignal());
    EXPECT_EQ(error, EINTR);
    EXPECT_NE(alarm.Now().sa_handler, SIG_DFL);
    EXPECT_NE(alarm.Now().sa_handler, SIG_IGN);
    EXPECT_TRUE((alarm.Now().sa_flags & SA_RESTART) != 0);
}

TEST(ThreadSignal, AnAlarmPutBackToItsDefaultDuringAJoinDoesNotEndTheProcessEither) {
    const Disposition alarm(SIGALRM, Count);
    std::atomic<bool> leave = false;
    Worker worker([&] {
        while (!leave) {
            select(0, nullptr, nullptr, nullptr, nullptr);
        }
    });
    worker.StartAndWaitUntilInside();
    worker.Signal();
    std::thread joiner([&] { worker.Join(); });
    ASSERT_TRUE(test::WaitUntil([] { return caught > 1; }));
    ::signal(SIGALRM, SIG_DFL);
    EXPECT_TRUE(test::WaitUntil([&alarm] { return alarm.Now().sa_handler != SIG_DFL; }));
    leave = true;
    joiner.join();
}

TEST(ThreadSignal, AnInstalledHandlerIsNotReplaced) {
    const Disposition alarm(SIGALRM, Count, 0);
    Worker worker([] {
        while (caught == 0) {
            select(0, nullptr, nullptr, nullptr, nullptr);
        }
    });
    EXPECT_TRUE(worker.EndsBySignal());
    EXPECT_EQ(alarm.Now().sa_handler, Count);
    EXPECT_TRUE((alarm.Now().sa_flags & SA_RESTART) == 0);
}

TEST(ThreadSignal, AHandlerThatTakesMoreArgumentsIsNotReplaced) {
    const Disposition restored(SIGALRM, SIG_DFL);
    struct sigaction action {};
    action.sa_sigaction = [](int, siginfo_t*, void*) { ++caught; };
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGALRM, &action, nullptr);
    Slept slept;
    Worker worker([&] { slept.Sleep(forEver); });
    EXPECT_TRUE(worker.EndsBySignal());
    EXPECT_EQ(restored.Now().sa_sigaction, action.sa_sigaction);
}

TEST(ThreadSignal, AnIgnoredAlarmStaysIgnoredAndEndsASleepAllTheSame) {
    const Disposition alarm(SIGALRM, SIG_IGN);
    Slept slept;
    Worker worker([&] { slept.Sleep(forEver); });
    EXPECT_TRUE(worker.EndsBySignal());
    EXPECT_EQ(slept.number, SIGALRM);
    EXPECT_EQ(alarm.Now().sa_handler, SIG_IGN);
}

TEST(ThreadSignal, DoesNothingToAThreadThatWasNeverStarted) {
    const Disposition alarm(SIGALRM, SIG_DFL);
    Worker worker([] {});
    worker.Signal();
    EXPECT_EQ(alarm.Now().sa_handler, SIG_DFL);
}

TEST(ThreadSignal, SentBeforeTheStartDoesNotEndASleepAfterIt) {
    const Disposition alarm(SIGALRM, Count);
    Slept slept;
    Worker worker([&] { slept.Sleep(20); });
    worker.Signal();
    worker.Start();
    worker.Join();
    EXPECT_EQ(slept.number, 0);
    EXPECT_GE(slept.lengthMs, 20);
    EXPECT_EQ(caught, 0);
}

TEST(ThreadSignal, DoesNothingToAThreadThatHasEnded) {
    const Disposition alarm(SIGALRM, Count);
    Worker worker([] {});
    worker.Start();
    worker.Join();
    worker.Signal();
    EXPECT_EQ(caught, 0);
    worker.Join();
}

TEST(ThreadSignal, DoesNothingToAThreadThatHasEndedAndIsNotJoinedYet) {
    for (int round = 0; round < 100; ++round) {
        const Disposition alarm(SIGALRM, SIG_DFL);
        Worker worker([] {});
        worker.Start();
        worker.Signal();
        EXPECT_TRUE(worker.JoinsInTime());
    }
}

TEST(ThreadSignal, AThreadMaySignalItself) {
    const Disposition alarm(SIGALRM, Count);
    Slept slept;
    Worker* self = nullptr;
    Worker worker([&] {
        self->Signal();
        slept.Sleep(forEver);
    });
    self = &worker;
    worker.Start();
    EXPECT_TRUE(worker.JoinsInTime());
    EXPECT_EQ(slept.number, SIGALRM);
}

TEST(ThreadSignal, ALeavingSignalIsLoggedAndEndsOnlyTheThread) {
    const Disposition alarm(SIGALRM, Count);
    const test::LogCapture log;
    Worker worker([] { Thread::CurrentThread::Sleep(forEver); });
    EXPECT_TRUE(worker.EndsBySignal());
    const std::vector<test::LogRecord> records = log.Records();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].logger, "kelto.osa");
    EXPECT_THAT(records[0].text, HasSubstr("interrupted by signal 14"));
}

TEST(ThreadSignal, ManyThreadsAreSignalledAndJoinedAtAnyPointOfTheirLives) {
    const Disposition alarm(SIGALRM, SIG_DFL);
    std::atomic<int> interrupted = 0;
    std::atomic<int> started = 0;
    for (int round = 0; round < 20; ++round) {
        std::vector<std::unique_ptr<Worker>> workers;
        for (int number = 0; number < 10; ++number) {
            workers.push_back(std::make_unique<Worker>([&interrupted] {
                try {
                    Thread::CurrentThread::Sleep(1);
                    Thread::CurrentThread::Sleep(forEver);
                } catch (const Signal&) {
                    ++interrupted;
                }
            }));
            workers.back()->Start();
            ++started;
        }
        std::thread signaller([&workers] {
            for (const auto& worker : workers) {
                worker->Signal();
            }
        });
        for (const auto& worker : workers) {
            worker->Signal();
            worker->Join();
        }
        signaller.join();
    }
    EXPECT_EQ(interrupted, started);
}

TEST(ThreadSignal, AStormOfForeignSignalsSpoilsNothing) {
    const Disposition hangUp(SIGHUP, Count);
    const Disposition alarm(SIGALRM, Count);
    Slept slept;
    Worker worker([&] { slept.Sleep(forEver); });
    worker.StartAndWaitUntilInside();
    for (int number = 0; number < 1000; ++number) {
        worker.SendForeign(SIGHUP);
    }
    worker.Signal();
    for (int number = 0; number < 10; ++number) {
        worker.Signal();
    }
    EXPECT_TRUE(worker.JoinsInTime());
    EXPECT_EQ(slept.number, SIGALRM);
}

}  // namespace

}  // namespace kelto::osa
