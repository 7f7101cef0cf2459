#include "kelto/core/UtcOffset.h"
#include "kelto/msgbus/DeliveryQueue.h"
#include "kelto/osa/Exception.h"
#include "tests/fakes/FailingAllocation.h"
#include "tests/fakes/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"
#include "tests/support/ProcessState.h"
#include "tests/unit/platform/msgbus/HeardMessages.h"

#include <unistd.h>

#include <atomic>
#include <future>
#include <stdexcept>

namespace kelto::msgbus {

namespace {

using namespace std::chrono_literals;

constexpr size_t mebibyte = size_t{1024} * 1024;

std::shared_ptr<const MsgBusMsg> Message(const std::string& text, size_t size = 100) {
    return std::make_shared<MsgBusMsg>(MsgBusMsg{
        .name = "Name", .domain = "domain", .signature = "s", .size = size, .arguments = {MsgBusMsg::Value{text}}});
}

/** A queue that is kept from delivering while a test fills it: one message is in flight, the handler holds it. */
class FilledQueue {
public:
    FilledQueue() {
        queue.Push(Message("in flight"));
        heard.WaitForCount(1);
    }
    ~FilledQueue() { Release(); }
    FilledQueue(const FilledQueue&) = delete;
    FilledQueue& operator=(const FilledQueue&) = delete;

    void Release() {
        if (!released) {
            released = true;
            gate.set_value();
        }
    }

private:
    bool released = false;
    std::promise<void> gate;
    const std::shared_future<void> opened = gate.get_future().share();

public:
    HeardMessages heard{[this](const MsgBusMsg&) { opened.wait(); }};
    DeliveryQueue queue{&heard};
};

std::vector<std::string> Numbers(size_t first, size_t count) {
    std::vector<std::string> numbers;
    for (size_t number = first; number < first + count; ++number) {
        numbers.push_back(std::to_string(number));
    }
    return numbers;
}

std::string DroppedWarning(int count) {
    return "Warning kelto.msgbus: " + std::to_string(count) + " messages were dropped, too many came at a time";
}

TEST(DeliveryQueue, HandsMessagesOverInTheirOrderOnAThreadOfItsOwn) {
    pid_t deliverer = 0;
    HeardMessages heard([&](const MsgBusMsg&) { deliverer = gettid(); });
    DeliveryQueue queue(&heard);
    for (const std::string& number : Numbers(0, 500)) {
        queue.Push(Message(number));
    }
    ASSERT_TRUE(heard.WaitForCount(500));
    queue.Close();
    EXPECT_EQ(heard.Texts(), Numbers(0, 500));
    EXPECT_NE(deliverer, gettid());
}

TEST(DeliveryQueue, TheDeliveringThreadBlocksNoSignals) {
    uint64_t blocked = ~uint64_t{0};
    HeardMessages heard([&](const MsgBusMsg&) { blocked = test::BlockedSignals(gettid()); });
    DeliveryQueue queue(&heard);
    queue.Push(Message("a"));
    ASSERT_TRUE(heard.WaitForCount(1));
    queue.Close();
    EXPECT_EQ(blocked, test::BlockedSignals(gettid()));
    EXPECT_EQ(blocked, 0U);
}

TEST(DeliveryQueue, WhatADeliveryLogsCountsByTheClocksAsTheyAreNow) {
    test::FakeClock clock("2025-03-30 01:50:00", "CET-1CEST,M3.5.0,M10.5.0/3");
    std::atomic<long> offset = 0;
    HeardMessages heard([&](const MsgBusMsg&) { offset = core::UtcOffset::Get(); });
    DeliveryQueue queue(&heard);
    queue.Push(Message("a"));
    ASSERT_TRUE(test::WaitUntil([&] { return offset == 3600; }));
    clock.Set("2025-03-30 03:10:00");
    queue.Push(Message("b"));
    EXPECT_TRUE(test::WaitUntil([&] { return offset == 7200; }));
}

TEST(DeliveryQueue, Keeps1024Messages) {
    const test::LogCapture log;
    FilledQueue filled;
    for (const std::string& number : Numbers(0, 1024)) {
        filled.queue.Push(Message(number));
    }
    filled.Release();
    ASSERT_TRUE(filled.heard.WaitForCount(1025));
    filled.queue.Close();
    EXPECT_EQ(log.Text(), "");
}

TEST(DeliveryQueue, BeyondThatTheOldestGoAndOneWarningCountsThemWhenTheQueueHasDrained) {
    const test::LogCapture log;
    FilledQueue filled;
    for (const std::string& number : Numbers(0, 1030)) {
        filled.queue.Push(Message(number));
    }
    EXPECT_EQ(log.Text(), "");
    filled.Release();
    ASSERT_TRUE(filled.heard.WaitForCount(1025));
    filled.queue.Close();
    std::vector<std::string> texts = filled.heard.Texts();
    texts.erase(texts.begin());
    EXPECT_EQ(texts, Numbers(6, 1024));
    EXPECT_THAT(log.Lines(), ElementsAre(DroppedWarning(6)));
}

TEST(DeliveryQueue, TheWarningWaitsUntilTheQueueHasDrained) {
    const test::LogCapture log;
    std::atomic<int> warnedAt = 0;
    std::atomic<int> count = 0;
    std::promise<void> gate;
    HeardMessages heard([&](const MsgBusMsg&) {
        if (++count == 1) {
            gate.get_future().wait();
        }
        if (warnedAt == 0 && count < 1025 && log.Has(DroppedWarning(1))) {
            warnedAt = count.load();
        }
    });
    DeliveryQueue queue(&heard);
    queue.Push(Message("in flight"));
    ASSERT_TRUE(heard.WaitForCount(1));
    for (const std::string& number : Numbers(0, 1025)) {
        queue.Push(Message(number));
    }
    gate.set_value();
    ASSERT_TRUE(log.WaitFor(DroppedWarning(1)));
    EXPECT_TRUE(heard.WaitForCount(1025));
    EXPECT_EQ(warnedAt, 0) << "warned before the last message was taken";
}

TEST(DeliveryQueue, KeepsFourMebibytes) {
    const test::LogCapture log;
    FilledQueue filled;
    for (const std::string& number : Numbers(0, 4)) {
        filled.queue.Push(Message(number, mebibyte));
    }
    filled.Release();
    ASSERT_TRUE(filled.heard.WaitForCount(5));
    filled.queue.Close();
    EXPECT_EQ(log.Text(), "");
}

TEST(DeliveryQueue, BeyondFourMebibytesTheOldestGoHoweverFewTheyAre) {
    const test::LogCapture log;
    FilledQueue filled;
    for (const std::string& number : Numbers(0, 4)) {
        filled.queue.Push(Message(number, mebibyte));
    }
    filled.queue.Push(Message("4", mebibyte + 1));
    filled.Release();
    ASSERT_TRUE(filled.heard.WaitForCount(4));
    filled.queue.Close();
    EXPECT_THAT(filled.heard.Texts(), ElementsAre("in flight", "2", "3", "4"));
    EXPECT_THAT(log.Lines(), ElementsAre(DroppedWarning(2)));
}

TEST(DeliveryQueue, WhatHasBeenDeliveredMakesRoom) {
    const test::LogCapture log;
    HeardMessages heard;
    DeliveryQueue queue(&heard);
    for (size_t number = 1; number <= 20; ++number) {
        queue.Push(Message("a", 3 * mebibyte));
        ASSERT_TRUE(heard.WaitForCount(number));
    }
    EXPECT_EQ(log.Text(), "");
}

TEST(DeliveryQueue, OneMessageTooLargeForItIsDroppedAndWarnedOfAtOnce) {
    const test::LogCapture log;
    HeardMessages heard;
    DeliveryQueue queue(&heard);
    queue.Push(Message("large", 4 * mebibyte + 1));
    EXPECT_TRUE(log.WaitFor(DroppedWarning(1)));
    queue.Push(Message("small"));
    ASSERT_TRUE(heard.WaitForCount(1));
    queue.Close();
    EXPECT_THAT(heard.Texts(), ElementsAre("small"));
    EXPECT_THAT(log.Lines(), ElementsAre(DroppedWarning(1)));
}

TEST(DeliveryQueue, AMessageTooLargeForItDrivesNoOtherOut) {
    const test::LogCapture log;
    FilledQueue filled;
    filled.queue.Push(Message("2"));
    filled.queue.Push(Message("large", 4 * mebibyte + 1));
    filled.queue.Push(Message("3"));
    filled.Release();
    ASSERT_TRUE(filled.heard.WaitForCount(3));
    EXPECT_TRUE(log.WaitFor(DroppedWarning(1)));
    filled.queue.Close();
    EXPECT_THAT(filled.heard.Texts(), ElementsAre("in flight", "2", "3"));
}

TEST(DeliveryQueue, EachFloodHasAWarningOfItsOwn) {
    const test::LogCapture log;
    HeardMessages heard;
    DeliveryQueue queue(&heard);
    queue.Push(Message("large", 4 * mebibyte + 1));
    ASSERT_TRUE(log.WaitFor(DroppedWarning(1)));
    queue.Push(Message("large", 4 * mebibyte + 1));
    EXPECT_TRUE(log.WaitFor(DroppedWarning(1), 2));
}

TEST(DeliveryQueue, WhatAHandlerThrowsIsLoggedAndDeliveryGoesOn) {
    const test::LogCapture log;
    HeardMessages heard([count = 0](const MsgBusMsg&) mutable {
        switch (++count) {
            case 1:
                throw osa::Exception("the platform's, %d", 7);
            case 2:
                throw std::runtime_error("the library's, 100% foreign %s");
            case 3:
                throw 42;
            default:
                break;
        }
    });
    DeliveryQueue queue(&heard);
    for (const std::string& number : Numbers(0, 4)) {
        queue.Push(Message(number));
    }
    ASSERT_TRUE(heard.WaitForCount(4));
    queue.Close();
    EXPECT_THAT(log.Lines(), ElementsAre("Error kelto.msgbus: the platform's, 7",
                                         "Error kelto.msgbus: the library's, 100% foreign %s",
                                         "Error kelto.msgbus: A message handler threw an unknown exception"));
}

std::string EndedWarning(int count) {
    return "Warning kelto.msgbus: " + std::to_string(count) + " messages were dropped, their subscription has ended";
}

TEST(DeliveryQueue, WhatStillWaitsAtTheEndIsCountedInOneWarning) {
    const test::LogCapture log;
    FilledQueue filled;
    for (const std::string& number : Numbers(0, 3)) {
        filled.queue.Push(Message(number));
    }
    filled.queue.Stop();
    EXPECT_THAT(log.Lines(), ElementsAre(EndedWarning(3)));
    filled.Release();
    filled.queue.Close();
    EXPECT_EQ(filled.heard.Count(), 1U);
    EXPECT_THAT(log.Lines(), ElementsAre(EndedWarning(3)));
}

TEST(DeliveryQueue, TheWarningAtTheEndCountsWhatHadToGoBeforeToo) {
    const test::LogCapture log;
    FilledQueue filled;
    for (const std::string& number : Numbers(0, 1030)) {
        filled.queue.Push(Message(number));
    }
    filled.queue.Push(Message("large", 4 * mebibyte + 1));
    filled.queue.Stop();
    EXPECT_THAT(log.Lines(), ElementsAre(EndedWarning(1031)));
}

TEST(DeliveryQueue, DestroyingOneTellsWhatStillWaited) {
    const test::LogCapture log;
    std::promise<void> gate;
    HeardMessages heard([opened = gate.get_future().share()](const MsgBusMsg&) { opened.wait(); });
    auto queue = std::make_unique<DeliveryQueue>(&heard);
    queue->Push(Message("in flight"));
    ASSERT_TRUE(heard.WaitForCount(1));
    queue->Push(Message("waiting"));
    std::future<void> destroyed = std::async(std::launch::async, [&] { queue.reset(); });
    EXPECT_TRUE(log.WaitFor(EndedWarning(1)));
    gate.set_value();
    destroyed.get();
    EXPECT_THAT(log.Lines(), ElementsAre(EndedWarning(1)));
}

TEST(DeliveryQueue, WhatComesAfterTheEndIsForgottenWithoutAWord) {
    const test::LogCapture log;
    HeardMessages heard;
    {
        DeliveryQueue queue(&heard);
        queue.Close();
        queue.Push(Message("late"));
    }
    EXPECT_EQ(heard.Count(), 0U);
    EXPECT_EQ(log.Text(), "");
}

TEST(DeliveryQueue, AMessageForWhichThereIsNoMemoryIsCountedAsDropped) {
    const test::LogCapture log;
    FilledQueue filled;
    int failed = 0;
    for (const std::string& number : Numbers(0, 100)) {
        const std::shared_ptr<const MsgBusMsg> message = Message(number);
        const test::FailingAllocation failing(0);
        filled.queue.Push(message);
        failed += test::FailingAllocation::HasFailed() ? 1 : 0;
    }
    ASSERT_GT(failed, 0);
    filled.Release();
    EXPECT_TRUE(log.WaitFor(DroppedWarning(failed)));
    EXPECT_TRUE(filled.heard.WaitForCount(1 + 100 - static_cast<size_t>(failed)));
}

TEST(DeliveryQueue, CloseWaitsForTheCallInFlightAndWhatIsQueuedIsForgotten) {
    FilledQueue filled;
    filled.queue.Push(Message("too late"));
    std::future<size_t> closed = std::async(std::launch::async, [&] {
        filled.queue.Close();
        return filled.heard.Count();
    });
    EXPECT_EQ(closed.wait_for(100ms), std::future_status::timeout);
    filled.Release();
    EXPECT_EQ(closed.get(), 1U);
    EXPECT_TRUE(test::WaitUntil([&] { return filled.queue.HasEnded(); }));
    filled.queue.Push(Message("later still"));
    filled.queue.Close();
    EXPECT_THAT(filled.heard.Texts(), ElementsAre("in flight"));
}

TEST(DeliveryQueue, ClosedFromInsideACallItIsTheLastOneAndTheHandlerMayGo) {
    /** Ends its queue in its first call, and itself with it. */
    class OneShot : public IMessageHandler {
    public:
        OneShot(std::unique_ptr<OneShot>& myOwner, DeliveryQueue*& myQueue, std::promise<bool>& goneSignal)
            : owner(myOwner), queue(myQueue), gone(goneSignal) {}

        void HandleMessage(const MsgBusMsg&) override {
            std::promise<bool>& told = gone;
            queue->Close();
            const bool inside = queue->IsDeliveringHere();
            owner.reset();
            told.set_value(inside);
        }

    private:
        std::unique_ptr<OneShot>& owner;
        DeliveryQueue*& queue;
        std::promise<bool>& gone;
    };

    std::unique_ptr<OneShot> handler;
    DeliveryQueue* queuePointer = nullptr;
    std::promise<bool> gone;
    handler = std::make_unique<OneShot>(handler, queuePointer, gone);
    DeliveryQueue queue(handler.get());
    queuePointer = &queue;
    EXPECT_FALSE(queue.IsDeliveringHere());
    queue.Push(Message("first"));
    queue.Push(Message("second"));
    EXPECT_TRUE(gone.get_future().get());
    EXPECT_TRUE(test::WaitUntil([&] { return queue.HasEnded(); }));
}

TEST(DeliveryQueue, DestroyingOneEndsItsThread) {
    const size_t before = test::CountThreads();
    HeardMessages heard;
    {
        DeliveryQueue queue(&heard);
        EXPECT_EQ(test::CountThreads(), before + 1);
        queue.Push(Message("a"));
    }
    EXPECT_TRUE(test::WaitUntil([&] { return test::CountThreads() == before; }));
}

}  // namespace

}  // namespace kelto::msgbus
