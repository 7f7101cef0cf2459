#include "kelto/osa/Runnable.h"
#include "kelto/osa/Signal.h"
#include "kelto/osa/Thread.h"
#include "tests/fakes/IntendedWaits.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitUntil.h"

#include <pthread.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

namespace kelto::osa {

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr int32_t forEver = std::numeric_limits<int32_t>::max();

std::atomic<int> caught = 0;

extern "C" void Count(int) {
    ++caught;
}

/** Gives a signal a disposition for the length of a scope. */
class Disposition {
public:
    Disposition(int signalNumber, sighandler_t handler, int flags = SA_RESTART) : number(signalNumber) {
        caught = 0;
        struct sigaction action {};
        action.sa_handler = handler;
        action.sa_flags = flags;
        sigaction(number, &action, &before);
    }
    ~Disposition() { sigaction(number, &before, nullptr); }
    Disposition(const Disposition&) = delete;
    Disposition& operator=(const Disposition&) = delete;

    struct sigaction Now() const {
        struct sigaction action {};
        sigaction(number, nullptr, &action);
        return action;
    }

private:
    const int number;
    struct sigaction before {};
};

/** Waits until the kernel shows a thread as sleeping, or not at all any more. */
bool WaitUntilAsleep(pid_t threadId) {
    return test::WaitUntil([threadId] {
        const std::string stat = test::ReadWholeFile("/proc/self/task/" + std::to_string(threadId) + "/stat");
        return stat.empty() || stat.find(") S ") != std::string::npos;
    });
}

/** A thread whose body is a function; joined by its destructor. */
class Worker : private Runnable {
public:
    explicit Worker(std::function<void()> bodyFunction)
        : function(std::move(bodyFunction)), thread("worker", *this, 256, 0) {}

    void Start() { thread.Run(); }
    void StartAndWaitUntilInside() {
        thread.Run();
        EXPECT_TRUE(test::WaitUntil([this] { return inside.load(); }));
    }
    void Signal(int number = SIGALRM) { thread.Signal(number); }
    void Join() { thread.Join(); }

    /** Joins and tells whether that ended in good time. A join that never ends would end the whole test program. */
    bool JoinsInTime() {
        std::future<void> joined = std::async(std::launch::async, [this] { thread.Join(); });
        return joined.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    }

    /** Sends a signal as anybody else would, without a word to the thread object. */
    void SendForeign(int number) const { pthread_kill(handle, number); }

    bool WaitUntilAsleep() const { return osa::WaitUntilAsleep(threadId); }

private:
    void Run() override {
        handle = pthread_self();
        threadId = gettid();
        // ThreadSanitizer's runtime loses a signal that comes in the middle of a thread's first blocking call.
        const timespec none{};
        nanosleep(&none, nullptr);
        inside = true;
        function();
    }
    void Stop() override {}

    const std::function<void()> function;
    std::atomic<bool> inside = false;
    std::atomic<pthread_t> handle{};
    std::atomic<pid_t> threadId = 0;
    // Last, so that it is joined before anything else goes.
    Thread thread;
};

/** What became of a sleep. */
struct Slept {
    std::atomic<int> number = 0;
    std::atomic<int64_t> lengthMs = -1;

    void Sleep(int32_t length) {
        const auto begin = Clock::now();
        try {
            Thread::CurrentThread::Sleep(length);
        } catch (const Signal& signal) {
            number = signal.GetNumber();
        }
        lengthMs = std::chrono::duration_cast<milliseconds>(Clock::now() - begin).count();
    }
};

TEST(Sleep, OfAWholeSecondLastsOneOnAThreadOfSomebodyElsesToo) {
    const auto begin = Clock::now();
    Thread::CurrentThread::Sleep(1000);
    EXPECT_GE(Clock::now() - begin, milliseconds(1000));
}

TEST(Sleep, LastsAtLeastItsTime) {
    Slept slept;
    Worker worker([&] { slept.Sleep(60); });
    worker.Start();
    worker.Join();
    EXPECT_EQ(slept.number, 0);
    EXPECT_GE(slept.lengthMs, 60);
}

TEST(Sleep, LastsAtLeastItsTimeOnAThreadThatIsNotOurs) {
    Slept slept;
    slept.Sleep(60);
    EXPECT_GE(slept.lengthMs, 60);
}

TEST(Sleep, OfNoTimeOrLessReturns) {
    std::atomic<int> returned = 0;
    const auto sleeps = [&returned] {
        for (const int32_t length : {0, -1, std::numeric_limits<int32_t>::min()}) {
            Thread::CurrentThread::Sleep(length);
            ++returned;
        }
    };
    Worker worker(sleeps);
    worker.Start();
    worker.Join();
    EXPECT_EQ(returned, 3);
    sleeps();
    EXPECT_EQ(returned, 6);
}

TEST(Sleep, IsEndedBySignalAtOnce) {
    const Disposition alarm(SIGALRM, Count);
    Slept slept;
    Worker worker([&] { slept.Sleep(forEver); });
    worker.StartAndWaitUntilInside();
    ASSERT_TRUE(worker.WaitUntilAsleep());
    const auto begin = Clock::now();
    worker.Signal();
    EXPECT_TRUE(worker.JoinsInTime());
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(5));
    EXPECT_EQ(slept.number, SIGALRM);
}

TEST(Sleep, IsEndedByASignalThatCameBeforeIt) {
    const Disposition alarm(SIGALRM, Count);
    Slept slept;
    Worker worker([&] {
        test::WaitUntil([] { return caught > 0; });
        slept.Sleep(forEver);
    });
    worker.StartAndWaitUntilInside();
    worker.Signal();
    EXPECT_TRUE(worker.JoinsInTime());
    EXPECT_EQ(slept.number, SIGALRM);
}

TEST(Sleep, EndsAtOnceEveryTimeAfterASignal) {
    const Disposition alarm(SIGALRM, Count);
    Slept slept[3];
    Worker worker([&] {
        for (Slept& one : slept) {
            one.Sleep(forEver);
        }
    });
    worker.StartAndWaitUntilInside();
    worker.Signal();
    EXPECT_TRUE(worker.JoinsInTime());
    for (const Slept& one : slept) {
        EXPECT_EQ(one.number, SIGALRM);
    }
}

TEST(Sleep, OfNoTimeEndsByASignalThatCameBeforeToo) {
    const Disposition alarm(SIGALRM, Count);
    Slept slept;
    Worker worker([&] {
        test::WaitUntil([] { return caught > 0; });
        slept.Sleep(0);
    });
    worker.StartAndWaitUntilInside();
    worker.Signal();
    EXPECT_TRUE(worker.JoinsInTime());
    EXPECT_EQ(slept.number, SIGALRM);
}

TEST(Sleep, TellsTheNumberOfTheSignal) {
    const Disposition user(SIGUSR2, Count);
    Slept slept;
    Worker worker([&] { slept.Sleep(forEver); });
    worker.StartAndWaitUntilInside();
    worker.Signal(SIGUSR2);
    EXPECT_TRUE(worker.JoinsInTime());
    EXPECT_EQ(slept.number, SIGUSR2);
}

TEST(Sleep, GoesOnForTheRestOfItsTimeAfterAnyOtherSignal) {
    for (const int flags : {SA_RESTART, 0}) {
        const Disposition hangUp(SIGHUP, Count, flags);
        Slept slept;
        Worker worker([&] { slept.Sleep(300); });
        worker.StartAndWaitUntilInside();
        for (int number = 1; number <= 20; ++number) {
            ASSERT_TRUE(worker.WaitUntilAsleep());
            worker.SendForeign(SIGHUP);
        }
        worker.Join();
        EXPECT_GT(caught, 0);
        EXPECT_EQ(slept.number, 0);
        EXPECT_GE(slept.lengthMs, 300);
    }
}

TEST(Sleep, GoesOnForTheRestOfItsTimeOnAThreadThatIsNotOursToo) {
    const Disposition hangUp(SIGHUP, Count, 0);
    Slept slept;
    std::atomic<pid_t> threadId = 0;
    std::jthread thread([&] {
        threadId = gettid();
        slept.Sleep(300);
    });
    ASSERT_TRUE(test::WaitUntil([&] { return threadId != 0; }));
    for (int number = 1; number <= 20; ++number) {
        ASSERT_TRUE(WaitUntilAsleep(threadId));
        pthread_kill(thread.native_handle(), SIGHUP);
    }
    thread.join();
    EXPECT_GT(caught, 0);
    EXPECT_GE(slept.lengthMs, 300);
}

TEST(Sleep, IsNotEndedByAnAlarmThatSomebodyElseSent) {
    const Disposition alarm(SIGALRM, Count);
    Slept slept;
    Worker worker([&] { slept.Sleep(200); });
    worker.StartAndWaitUntilInside();
    ASSERT_TRUE(worker.WaitUntilAsleep());
    worker.SendForeign(SIGALRM);
    worker.Join();
    EXPECT_EQ(caught, 1);
    EXPECT_EQ(slept.number, 0);
    EXPECT_GE(slept.lengthMs, 200);
}

TEST(ThreadSignal, InterruptsASelect) {
    const Disposition alarm(SIGALRM, Count);
    std::atomic<int> error = 0;
    Worker worker([&] { error = select(0, nullptr, nullptr, nullptr, nullptr) < 0 ? errno : 0; });
    worker.StartAndWaitUntilInside();
    worker.Signal();
    EXPECT_TRUE(worker.JoinsInTime());
    EXPECT_EQ(error, EINTR);
}

TEST(ThreadSignal, IsRepeatedByJoinForASelectThatWasEnteredTooLate) {
    const Disposition alarm(SIGALRM, Count);
    std::atomic<int> error = 0;
    Worker worker([&] {
        test::WaitUntil([] { return caught > 0; });
        error = select(0, nullptr, nullptr, nullptr, nullptr) < 0 ? errno : 0;
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
    Worker worker([&] { error = select(0, nullptr, nullptr, nullptr, nullptr) < 0 ? errno : 0; });
    worker.StartAndWaitUntilInside();
    worker.Signal();
    EXPECT_TRUE(worker.JoinsInTime());
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
    worker.StartAndWaitUntilInside();
    worker.Signal();
    EXPECT_TRUE(worker.JoinsInTime());
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
    worker.StartAndWaitUntilInside();
    worker.Signal();
    EXPECT_TRUE(worker.JoinsInTime());
    EXPECT_EQ(restored.Now().sa_sigaction, action.sa_sigaction);
}

TEST(ThreadSignal, AnIgnoredAlarmStaysIgnoredAndEndsASleepAllTheSame) {
    const Disposition alarm(SIGALRM, SIG_IGN);
    Slept slept;
    Worker worker([&] { slept.Sleep(forEver); });
    worker.StartAndWaitUntilInside();
    worker.Signal();
    EXPECT_TRUE(worker.JoinsInTime());
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
    worker.StartAndWaitUntilInside();
    worker.Signal();
    EXPECT_TRUE(worker.JoinsInTime());
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
