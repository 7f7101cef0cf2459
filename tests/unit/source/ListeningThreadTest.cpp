#include "kelto/osa/Exception.h"
#include "kelto/osa/Runnable.h"
#include "source/ListeningThread.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitUntil.h"

#include <gmock/gmock.h>
#include <pthread.h>

#include <atomic>
#include <functional>
#include <future>
#include <thread>

namespace kelto::halvek::source {

namespace {

constexpr std::chrono::milliseconds longEnoughToHappen(100);

class Body : public osa::Runnable {
public:
    explicit Body(std::function<void()> bodyAction) : action(std::move(bodyAction)) {}

    void Run() override { action(); }
    void Stop() override {}

private:
    const std::function<void()> action;
};

TEST(ListeningThread, StartingWaitsUntilTheBodyHasOpenedTheLatch) {
    ListeningThread thread;
    std::promise<void> ready;
    std::promise<void> end;
    Body body([&] {
        ready.get_future().wait();
        thread.OpenLatch();
        end.get_future().wait();
    });
    std::atomic<bool> started = false;
    std::thread starter([&] {
        thread.Start("body", body);
        started = true;
    });
    EXPECT_TRUE(test::StaysFalse([&] { return started.load(); }, longEnoughToHappen));
    ready.set_value();
    EXPECT_TRUE(test::WaitUntil([&] { return started.load(); }));
    starter.join();
    end.set_value();
    thread.Finish();
}

TEST(ListeningThread, StartingReturnsWhenTheBodyLeavesByAnException) {
    const test::LogCapture log;
    ListeningThread thread;
    Body body([&] {
        const ListeningThread::LatchOpener opener(thread);
        throw osa::Exception("no pipe");
    });
    thread.Start("body", body);
    EXPECT_NE(body.GetCurrentThread(), nullptr);
    thread.Finish();
    EXPECT_EQ(body.GetCurrentThread(), nullptr);
    EXPECT_TRUE(log.Has("Error kelto.osa: Thread body ended by an exception: no pipe"));
}

TEST(ListeningThread, CanBeStartedAgainAfterItHasFinished) {
    ListeningThread thread;
    int runs = 0;
    Body body([&] {
        const ListeningThread::LatchOpener opener(thread);
        ++runs;
    });
    for (int round = 0; round < 3; ++round) {
        thread.Start("body", body);
        thread.Finish();
    }
    EXPECT_EQ(runs, 3);
}

TEST(ListeningThread, HasAStackOfOneMebibyte) {
    ListeningThread thread;
    size_t stackSize = 0;
    Body body([&] {
        const ListeningThread::LatchOpener opener(thread);
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &stackSize);
        pthread_attr_destroy(&attributes);
    });
    thread.Start("body", body);
    thread.Finish();
    EXPECT_EQ(stackSize, 1024U * 1024U);
}

}  // namespace

}  // namespace kelto::halvek::source
