#include "kelto/msgbus/BusListener.h"
#include "tests/fakes/FailingAllocation.h"
#include "tests/unit/platform/msgbus/MsgBusFixture.h"

#include <atomic>
#include <optional>

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

}  // namespace

}  // namespace kelto::msgbus
