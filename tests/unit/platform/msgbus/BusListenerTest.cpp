#include "kelto/msgbus/BusListener.h"
#include "tests/fakes/FailingAllocation.h"
#include "tests/unit/platform/msgbus/MsgBusFixture.h"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <vector>

namespace {

/**
 * How long threads have meant to wait for a condition, if it was longer than a moment; in milliseconds. Its room is
 * taken beforehand: other tests have allocations fail, and this is none of theirs.
 */
std::mutex waitsMutex;
std::vector<int64_t> longWaits = [] {
    std::vector<int64_t> waits;
    waits.reserve(1024);
    return waits;
}();

}  // namespace

// The program's own definition stands before the C library's.
extern "C" int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                      const timespec* end) {
    static const auto real =
        reinterpret_cast<decltype(&pthread_cond_clockwait)>(dlsym(RTLD_NEXT, "pthread_cond_clockwait"));
    timespec now{};
    clock_gettime(clock, &now);
    const int64_t ms = int64_t{end->tv_sec - now.tv_sec} * 1000 + (end->tv_nsec - now.tv_nsec) / 1000000;
    if (ms >= 50) {
        const std::lock_guard lock(waitsMutex);
        if (longWaits.size() < longWaits.capacity()) {
            longWaits.push_back(ms);
        }
    }
    return real(condition, mutex, clock, end);
}

namespace kelto::msgbus {

namespace {

/** Has an allocation of the listening thread fail, the one after so many from the first signal on. */
class FailingListener {
public:
    explicit FailingListener(size_t goodOnes) : goodOnesBefore(goodOnes) {
        listener.WaitUntilSettled(listener.AddFilter(anybody));
        listener.WaitUntilSettled(listener.Start());
    }

    std::atomic<int> heard = 0;
    std::atomic<int> heardOfOwner = 0;

private:
    void Receive(const MessageFilter& filter) {
        if (heard++ == 0) {
            failing.emplace(goodOnesBefore);
        }
        heardOfOwner += filter == owner ? 1 : 0;
    }

    const size_t goodOnesBefore;
    std::optional<test::FailingAllocation> failing;

public:
    BusListener listener{[this](const MessageFilter& filter, const auto&) { Receive(filter); }};
};

TEST(BusListener, GoesOnWhenThereWasNoMemoryForAMoment) {
    const test::PrivateBus daemon;
    const test::LogCapture log{core::LogLevel::Warning};
    test::ScriptedService speaker{"Speaker"};
    for (size_t goodOnes = 0; goodOnes < 12; ++goodOnes) {
        FailingListener failing(goodOnes);
        speaker.Emit(Said("the first"));
        ASSERT_TRUE(test::WaitUntil([&] { return failing.heard > 0; }));
        failing.listener.AddFilter(owner);
        const auto isHeard = [&] {
            speaker.Emit(Said("again", owner));
            return failing.heardOfOwner > 0;
        };
        ASSERT_TRUE(test::WaitUntil(isHeard)) << "after " << goodOnes << " allocations";
    }
}

TEST(BusListener, WhatItsReceiverThrowsIsLoggedAsItIs) {
    const test::PrivateBus daemon;
    const test::LogCapture log{core::LogLevel::Warning};
    test::ScriptedService speaker{"Speaker"};
    BusListener listener([](const MessageFilter&, const auto&) { throw std::runtime_error("100% full: %s"); });
    listener.WaitUntilSettled(listener.AddFilter(anybody));
    listener.WaitUntilSettled(listener.Start());
    speaker.Emit(Said("the first"));
    EXPECT_TRUE(log.WaitFor("Error kelto.msgbus: 100% full: %s"));
}

TEST(BusListener, WithoutABusItWaitsTwiceAsLongEachTimeBeforeItLooksAgain) {
    const test::PrivateBus daemon(test::PrivateBus::State::Absent);
    longWaits.clear();
    BusListener listener([](const MessageFilter&, const auto&) {});
    listener.Start();
    const auto waited = [] {
        const std::lock_guard lock(waitsMutex);
        return longWaits;
    };
    ASSERT_TRUE(test::WaitUntil([&] { return waited().size() >= 4; }));
    const std::vector<int64_t> expected = {100, 200, 400, 800};
    for (size_t at = 0; at < expected.size(); ++at) {
        EXPECT_LE(waited()[at], expected[at]);
        EXPECT_GT(waited()[at], expected[at] * 3 / 4);
    }
}

}  // namespace

}  // namespace kelto::msgbus
