#include "kelto/core/Logger.h"
#include "tests/fakes/FailingAllocation.h"
#include "tests/support/FreshProcess.h"
#include "tests/support/Matchers.h"
#include "tests/support/ProcessState.h"
#include "tests/unit/platform/msgbus/MsgBusFixture.h"

#include <memory>
#include <new>

namespace kelto::msgbus {

namespace {

using test::FailingAllocation;

/** Subscribes with one allocation failing, the one after so many; says whether it came to that. */
bool SubscribeFails(MsgBus& bus, const MessageFilter& wanted, IMessageHandler& handler, size_t goodOnes) {
    const FailingAllocation failing(goodOnes);
    try {
        bus.Subscribe(wanted, &handler);
    } catch (const std::bad_alloc&) {
    }
    return FailingAllocation::HasFailed();
}

TEST_F(MsgBusTest, ASubscriptionThatFailsForWantOfMemoryLeavesNothingBehind) {
    bus.Subscribe(anybody, &heard);
    bus.Start();
    const size_t threads = test::CountThreads();
    size_t failures = 0;
    for (;; ++failures) {
        // Destroyed without having been unsubscribed, as an object is whose constructor has thrown.
        const auto failing = std::make_unique<HeardMessages>();
        if (!SubscribeFails(bus, anybody, *failing, failures)) {
            bus.Unsubscribe(failing.get());
            break;
        }
        speaker.Emit(Said("a"));
        ASSERT_TRUE(heard.WaitForCount(failures + 1));
        ASSERT_THAT(failing->Texts(), IsEmpty()) << "after " << failures << " allocations";
    }
    EXPECT_GT(failures, 0U);
    EXPECT_TRUE(test::WaitUntil([&] { return test::CountThreads() == threads; }));
}

TEST_F(MsgBusTest, ASubscriptionThatFailsForWantOfMemoryAsksTheBusForNothing) {
    bus.Start();
    for (size_t failures = 0; SubscribeFails(bus, owner, heard, failures); ++failures) {
        HeardMessages marker;
        bus.Subscribe(anybody, &marker);
        ASSERT_EQ(daemon.CountMatchRules("com.kelto.Speaker"), 0U) << "after " << failures << " allocations";
        bus.Unsubscribe(&marker);
    }
    speaker.Emit(Said("b", owner));
    ASSERT_TRUE(heard.WaitForCount(1));
    EXPECT_THAT(heard.Texts(), ElementsAre("b"));
}

TEST_F(MsgBusTest, TheEndOfASubscriptionNeedsNoMemory) {
    bus.Subscribe(anybody, &heard);
    bus.Subscribe(owner, &heard);
    bus.Start();
    HeardMessages other;
    bus.Subscribe(anybody, &other);
    {
        const FailingAllocation failing(0);
        bus.Unsubscribe(&heard);
        bus.Unsubscribe(&other);
        EXPECT_FALSE(FailingAllocation::HasFailed());
    }
    EXPECT_TRUE(test::WaitUntil([&] { return daemon.MatchRules().empty(); }));
}

TEST(MsgBusMemory, WhatItTellsLaterNeedsNoMemory) {
    // As long as nobody else has asked for the logger.
    test::ExpectInFreshProcess([] {
        const MsgBus bus;
        const FailingAllocation failing(0);
        core::Logger::GetLogger("kelto.msgbus");
        EXPECT_FALSE(FailingAllocation::HasFailed());
    });
}

}  // namespace

}  // namespace kelto::msgbus
