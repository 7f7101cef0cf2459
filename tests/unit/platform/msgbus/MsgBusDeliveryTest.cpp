#include "kelto/osa/Exception.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Matchers.h"
#include "tests/support/ProcessState.h"
#include "tests/support/WaitUntil.h"
#include "tests/unit/platform/msgbus/MsgBusFixture.h"

#include <fcntl.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

namespace kelto::msgbus {

namespace {

using namespace std::chrono_literals;
using test::BusSignal;

TEST_F(MsgBusTest, UnsubscribingWaitsForTheCallInFlight) {
    std::promise<void> gate;
    std::atomic<bool> inside = false;
    auto handler = std::make_unique<HeardMessages>([&, opened = gate.get_future().share()](const MsgBusMsg&) {
        inside = true;
        opened.wait();
        inside = false;
    });
    bus.Subscribe(anybody, handler.get());
    bus.Start();
    speaker.Emit({Said("in flight"), Said("never")});
    ASSERT_TRUE(handler->WaitForCount(1));
    std::future<size_t> unsubscribed = std::async(std::launch::async, [&] {
        bus.Unsubscribe(handler.get());
        EXPECT_FALSE(inside);
        const size_t count = handler->Count();
        handler.reset();
        return count;
    });
    EXPECT_EQ(unsubscribed.wait_for(100ms), std::future_status::timeout);
    gate.set_value();
    EXPECT_EQ(unsubscribed.get(), 1U);
}

/** Ends its own subscription, and itself, in its first call. */
class OneShot : public IMessageHandler {
public:
    OneShot(MsgBus& messageBus, std::unique_ptr<OneShot>& myOwner, std::promise<void>& goneSignal)
        : bus(messageBus), self(myOwner), gone(goneSignal) {}

    void HandleMessage(const MsgBusMsg&) override {
        std::promise<void>& told = gone;
        bus.Unsubscribe(this);
        self.reset();
        told.set_value();
    }

private:
    MsgBus& bus;
    std::unique_ptr<OneShot>& self;
    std::promise<void>& gone;
};

TEST_F(MsgBusTest, UnsubscribingFromInsideACallReturnsAtOnceAndTheHandlerMayGo) {
    bus.Subscribe(anybody, &heard);
    bus.Start();
    for (size_t round = 1; round <= 50; ++round) {
        std::promise<void> gone;
        std::unique_ptr<OneShot> handler;
        handler = std::make_unique<OneShot>(bus, handler, gone);
        bus.Subscribe(anybody, handler.get());
        speaker.Emit({Said("first"), Said("second")});
        gone.get_future().get();
        ASSERT_TRUE(heard.WaitForCount(2 * round));
    }
}

TEST_F(MsgBusTest, WhoUnsubscribedFromInsideLeavesNoThreadBehind) {
    bus.Start();
    const size_t before = test::CountThreads();
    for (int round = 0; round < 20; ++round) {
        std::promise<void> gone;
        std::unique_ptr<OneShot> handler;
        handler = std::make_unique<OneShot>(bus, handler, gone);
        bus.Subscribe(anybody, handler.get());
        speaker.Emit(Said("go"));
        gone.get_future().get();
    }
    EXPECT_TRUE(test::WaitUntil([&] { return test::CountThreads() == before; }));
}

TEST_F(MsgBusTest, ADeliveryMayAddAndTakeAwayOthers) {
    HeardMessages added;
    HeardMessages taken;
    std::promise<void> done;
    HeardMessages changing([&](const MsgBusMsg&) {
        bus.Subscribe(owner, &added);
        bus.Unsubscribe(&taken);
        done.set_value();
    });
    bus.Subscribe(anybody, &changing);
    bus.Subscribe(owner, &taken);
    bus.Start();
    speaker.Emit(Said("change"));
    done.get_future().get();
    speaker.Emit(Said("after", owner));
    EXPECT_TRUE(added.WaitForCount(1));
    EXPECT_EQ(taken.Count(), 0U);
    bus.Unsubscribe(&changing);
    bus.Unsubscribe(&added);
}

TEST_F(MsgBusTest, WhatAHandlerThrowsIsLoggedAndDeliveryGoesOn) {
    HeardMessages throwing([](const MsgBusMsg& message) {
        const auto text = std::get<std::string>(message.arguments.at(0).content);
        if (text == "int") {
            throw 1;
        }
        if (text == "std") {
            throw std::runtime_error("std %s");
        }
        throw osa::Exception("kelto");
    });
    bus.Subscribe(anybody, &throwing);
    bus.Start();
    speaker.Emit({Said("int"), Said("std"), Said("kelto")});
    ASSERT_TRUE(throwing.WaitForCount(3));
    bus.Unsubscribe(&throwing);
    EXPECT_THAT(log.Lines(), ElementsAre("Error kelto.msgbus: A message handler threw an unknown exception",
                                         "Error kelto.msgbus: std %s", "Error kelto.msgbus: kelto"));
}

TEST_F(MsgBusTest, EveryTypeThatTheBusKnowsHasItsPlaceInTheMessage) {
    bus.Subscribe(anybody, &heard);
    bus.Start();
    BusSignal all = Said("");
    all.arguments.clear();
    all.append = [](sd_bus_message* message) {
        test::CheckBus(sd_bus_message_append(message, "ynqiuxbdsog", 200, -3, 65535, INT32_MIN, UINT32_MAX, INT64_MIN,
                                             1, 0.1, "text", "/a/b", "a{sv}"),
                       "append");
        test::CheckBus(sd_bus_message_append(message, "a(dd)a{sv}as", 1, 1.5, -2.5, 1, "key", "i", 9, 0), "append");
    };
    speaker.Emit(all);
    ASSERT_TRUE(heard.WaitForCount(1)) << log.Text();
    const MsgBusMsg message = heard.Messages().front();
    EXPECT_EQ(message.signature, "ynqiuxbdsoga(dd)a{sv}as");
    ASSERT_EQ(message.arguments.size(), 14U);
    const auto at = [&](size_t number) { return message.arguments[number].content; };
    using Content = decltype(MsgBusMsg::Value::content);
    EXPECT_EQ(std::get<int32_t>(at(0)), 200);
    EXPECT_EQ(std::get<int32_t>(at(1)), -3);
    EXPECT_EQ(std::get<int32_t>(at(2)), 65535);
    EXPECT_EQ(std::get<int32_t>(at(3)), INT32_MIN);
    EXPECT_EQ(std::get<int64_t>(at(4)), int64_t{UINT32_MAX});
    EXPECT_EQ(std::get<int64_t>(at(5)), INT64_MIN);
    EXPECT_EQ(std::get<bool>(at(6)), true);
    EXPECT_EQ(std::get<double>(at(7)), 0.1);
    EXPECT_EQ(std::get<std::string>(at(8)), "text");
    EXPECT_EQ(std::get<std::string>(at(9)), "/a/b");
    EXPECT_EQ(std::get<std::string>(at(10)), "a{sv}");
    const auto members = [](const Content& content) { return std::get<MsgBusMsg::Values>(content); };
    ASSERT_EQ(members(at(11)).size(), 1U);
    EXPECT_EQ(std::get<double>(members(members(at(11))[0].content).at(1).content), -2.5);
    const auto entry = members(members(at(12)).at(0).content);
    EXPECT_EQ(std::get<std::string>(entry.at(0).content), "key");
    EXPECT_EQ(std::get<int32_t>(members(entry.at(1).content).at(0).content), 9);
    EXPECT_THAT(members(at(13)), IsEmpty());
}

TEST_F(MsgBusTest, AMessageThatHasNoPlaceForItsArgumentsIsLoggedAndDeliveryGoesOn) {
    bus.Subscribe(anybody, &heard);
    bus.Start();
    BusSignal large = Said("");
    large.append = [](sd_bus_message* message) {
        test::CheckBus(sd_bus_message_append(message, "t", UINT64_MAX), "append");
    };
    BusSignal descriptor = Said("");
    descriptor.append = [](sd_bus_message* message) {
        test::CheckBus(sd_bus_message_append(message, "h", STDIN_FILENO), "append");
    };
    const size_t descriptors = test::OpenDescriptors().size();
    speaker.Emit({large, descriptor, Said("fine")});
    ASSERT_TRUE(heard.WaitForCount(1));
    EXPECT_THAT(heard.Texts(), ElementsAre("fine"));
    EXPECT_THAT(log.Lines(), ElementsAre("Error kelto.msgbus: Cannot read a message: there is no place for type 't'",
                                         "Error kelto.msgbus: Cannot read a message: there is no place for type 'h'"));
    EXPECT_EQ(test::OpenDescriptors().size(), descriptors);
}

TEST_F(MsgBusTest, AMessageWithoutArgumentsIsAMessage) {
    bus.Subscribe(anybody, &heard);
    bus.Start();
    BusSignal empty = Said("");
    empty.arguments.clear();
    speaker.Emit(empty);
    ASSERT_TRUE(heard.WaitForCount(1));
    EXPECT_EQ(heard.Messages().front().signature, "");
    EXPECT_THAT(heard.Messages().front().arguments, IsEmpty());
}

/** The N of all Warnings "N messages were dropped, ...". */
size_t CountDropped(const test::LogCapture& log) {
    size_t dropped = 0;
    for (const test::LogRecord& record : log.Records()) {
        if (record.text.find(" messages were dropped, too many came at a time") != std::string::npos) {
            dropped += std::stoul(record.text);
        }
    }
    return dropped;
}

TEST_F(MsgBusTest, OfAFloodOfTenThousandEachIsDeliveredOrCountedAsDropped) {
    std::promise<void> gate;
    std::atomic<size_t> count = 0;
    HeardMessages slow([&, opened = gate.get_future().share()](const MsgBusMsg&) {
        opened.wait();
        ++count;
    });
    bus.Subscribe(anybody, &slow);
    bus.Subscribe(anybody, &heard);
    bus.Start();
    speaker.Emit(Said("the one in delivery"));
    ASSERT_TRUE(slow.WaitForCount(1));
    speaker.Emit(SaidNumbers(10000));
    // On a thread of its own this one takes all, or nearly: what it lost is counted too.
    HeardMessages marker;
    bus.Subscribe(owner, &marker);
    speaker.Emit(Said("end", owner));
    ASSERT_TRUE(marker.WaitForCount(1));
    bus.Unsubscribe(&marker);
    gate.set_value();
    EXPECT_TRUE(test::WaitUntil([&] { return count + heard.Count() + CountDropped(log) == 20002; }))
        << count << " + " << heard.Count() << " + " << CountDropped(log);
    EXPECT_EQ(slow.Count(), 1025U);
    EXPECT_EQ(slow.Texts().back(), "9999");
    EXPECT_TRUE(log.Has("Warning kelto.msgbus: 8976 messages were dropped, too many came at a time"));
    bus.Unsubscribe(&slow);
}

TEST_F(MsgBusTest, AMessageOfMoreThanFourMebibytesIsDroppedAndCounted) {
    bus.Subscribe(anybody, &heard);
    bus.Start();
    speaker.Emit(Said(std::string(5 * 1024 * 1024, 'x')));
    EXPECT_TRUE(log.WaitFor("Warning kelto.msgbus: 1 messages were dropped, too many came at a time"));
    speaker.Emit(Said(std::string(1024 * 1024, 'y')));
    ASSERT_TRUE(heard.WaitForCount(1));
    EXPECT_EQ(heard.Texts().front().size(), size_t{1024} * 1024);
}

TEST_F(MsgBusTest, SubscriptionsComeAndGoOnManyThreadsWhileSignalsFlow) {
    bus.Subscribe(anybody, &heard);
    std::atomic<bool> speaking = true;
    std::jthread emitter([&] {
        while (speaking) {
            speaker.Emit({Said("a"), Said("b", owner)});
        }
    });
    std::vector<std::jthread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([this, number] {
            for (int round = 0; round < 50; ++round) {
                HeardMessages passing;
                bus.Subscribe(number % 2 == 0 ? anybody : owner, &passing);
                bus.Start();
                bus.Unsubscribe(&passing);
            }
        });
    }
    threads.clear();
    speaking = false;
    emitter.join();
    const size_t before = heard.Count();
    speaker.Emit(Said("still flowing"));
    EXPECT_TRUE(heard.WaitForCount(before + 1));
}

TEST_F(MsgBusTest, InterruptionsOfItsThreadsLoseNothing) {
    struct sigaction counted {};
    struct sigaction before {};
    counted.sa_handler = [](int) {};
    sigaction(SIGALRM, &counted, &before);
    bus.Subscribe(anybody, &heard);
    bus.Start();
    std::atomic<bool> going = true;
    std::jthread interrupter([&] {
        // A thread has its name when it has begun to run.
        while (going) {
            for (const char* name : {"MsgBusListener", "MsgBusDelivery"}) {
                for (const pid_t thread : test::ThreadsNamed(name)) {
                    tgkill(getpid(), thread, SIGALRM);
                }
            }
        }
    });
    for (size_t count = 1; count <= 500; ++count) {
        speaker.Emit(Said(std::to_string(count)));
    }
    EXPECT_TRUE(heard.WaitForCount(500));
    going = false;
    interrupter.join();
    EXPECT_EQ(log.Text(), "");
    // Ignoring it first discards those that are still on their way.
    signal(SIGALRM, SIG_IGN);
    sigaction(SIGALRM, &before, nullptr);
}

TEST_F(MsgBusTest, SignalsMayArriveWhileItIsDestroyed) {
    std::atomic<bool> speaking = true;
    std::jthread emitter([&] {
        while (speaking) {
            speaker.Emit({Said("a"), Said("b", owner)});
        }
    });
    for (int round = 0; round < 30; ++round) {
        HeardMessages passing;
        auto passingBus = std::make_unique<MsgBus>();
        passingBus->Subscribe(anybody, &passing);
        passingBus->Subscribe(owner, &passing);
        passingBus->Start();
        ASSERT_TRUE(passing.WaitForCount(1));
        passingBus.reset();
    }
    speaking = false;
}

TEST_F(MsgBusTest, ItLeavesNoThreadAndNoDescriptorBehind) {
    const size_t threads = test::CountThreads();
    const size_t descriptors = test::OpenDescriptors().size();
    for (int round = 0; round < 20; ++round) {
        MsgBus passing;
        passing.Subscribe(anybody, &heard);
        passing.Start();
    }
    EXPECT_TRUE(test::WaitUntil([&] { return test::CountThreads() == threads; }));
    EXPECT_EQ(test::OpenDescriptors().size(), descriptors);
}

TEST_F(MsgBusTest, ItsDescriptorsAreClosedInWhatTheProcessStarts) {
    const std::vector<int> before = test::OpenDescriptors();
    bus.Start();
    std::vector<int> its = test::OpenDescriptors();
    std::erase_if(its, [&](int fd) { return std::binary_search(before.begin(), before.end(), fd); });
    EXPECT_THAT(its, Not(IsEmpty()));
    for (const int fd : its) {
        EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << "descriptor " << fd;
    }
}

}  // namespace

}  // namespace kelto::msgbus
