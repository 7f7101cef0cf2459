#pragma once

#include "kelto/osa/Runnable.h"
#include "kelto/osa/Signal.h"
#include "kelto/osa/Thread.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitUntil.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <ctime>
#include <functional>
#include <future>
#include <limits>
#include <string>
#include <utility>

namespace kelto::osa {

inline constexpr int32_t forEver = std::numeric_limits<int32_t>::max();

/** How many signals Count has caught since a disposition was set last. */
inline std::atomic<int> caught = 0;

inline void Count(int) {
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
inline bool WaitUntilAsleep(pid_t threadId) {
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

    /** Starts, signals once it is inside, and tells whether it joined in good time. */
    bool EndsBySignal(int number = SIGALRM) {
        StartAndWaitUntilInside();
        Signal(number);
        return JoinsInTime();
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
        const auto sleep = [&] {
            try {
                Thread::CurrentThread::Sleep(length);
            } catch (const Signal& signal) {
                number = signal.GetNumber();
            }
        };
        lengthMs = test::TimeOf(sleep).count();
    }
};

}  // namespace kelto::osa
