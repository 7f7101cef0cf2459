#include "tests/unit/platform/osa/SignalledThread.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <limits>
#include <thread>

namespace kelto::osa {

namespace {

using namespace std::chrono_literals;

TEST(Sleep, OfAWholeSecondLastsOneOnAThreadOfSomebodyElsesToo) {
    EXPECT_GE(test::TimeOf([] { Thread::CurrentThread::Sleep(1000); }), 1s);
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
    const auto untilItEnds = test::TimeOf([&] {
        worker.Signal();
        EXPECT_TRUE(worker.JoinsInTime());
    });
    EXPECT_LT(untilItEnds, 5s);
    EXPECT_EQ(slept.number, SIGALRM);
}

TEST(Sleep, IsEndedByASignalThatCameBeforeIt) {
    const Disposition alarm(SIGALRM, Count);
    Slept slept;
    Worker worker([&] {
        test::WaitUntil([] { return caught > 0; });
        slept.Sleep(forEver);
    });
    EXPECT_TRUE(worker.EndsBySignal());
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
    EXPECT_TRUE(worker.EndsBySignal());
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
    EXPECT_TRUE(worker.EndsBySignal());
    EXPECT_EQ(slept.number, SIGALRM);
}

TEST(Sleep, TellsTheNumberOfTheSignal) {
    const Disposition user(SIGUSR2, Count);
    Slept slept;
    Worker worker([&] { slept.Sleep(forEver); });
    EXPECT_TRUE(worker.EndsBySignal(SIGUSR2));
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

}  // namespace

}  // namespace kelto::osa
