#include "kelto/msgbus/BusListener.h"
#include "tests/fakes/FailingAllocation.h"
#include "tests/fakes/IntendedWaits.h"
#include "tests/unit/platform/msgbus/MsgBusFixture.h"

#include <atomic>
#include <chrono>
#include <optional>
#include <stdexcept>

namespace kelto::msgbus {

namespace {

using namespace std::chrono_literals;

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
    test::ExpectWaits({100ms, 200ms, 400ms, 800ms}, [](const test::IntendedWaits& waits) {
        BusListener listener([](const MessageFilter&, const auto&) {});
        listener.Start();
        EXPECT_TRUE(waits.WaitForCount(4));
    });
}

}  // namespace

}  // namespace kelto::msgbus
