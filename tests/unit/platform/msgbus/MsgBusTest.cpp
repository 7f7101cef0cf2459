#include "kelto/msgbus/IMessageHandler.h"
#include "kelto/msgbus/MsgBus.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace kelto::msgbus {

namespace {

class SilentHandler : public IMessageHandler {
public:
    void HandleMessage(const MsgBusMsg&) override {}
};

TEST(MsgBus, IsNotStartedBeforeItsStart) {
    MsgBus bus;
    EXPECT_FALSE(bus.IsStarted());
    bus.Start();
    EXPECT_TRUE(bus.IsStarted());
}

TEST(MsgBus, ASecondStartDoesNothing) {
    MsgBus bus;
    SilentHandler handler;
    bus.Start();
    bus.Subscribe("AnalyticsAlert", "com.zentu.analytics", &handler);
    bus.Start();
    EXPECT_TRUE(bus.IsStarted());
    EXPECT_EQ(bus.CountSubscriptions(), 1U);
}

TEST(MsgBus, SubscribesBeforeAndAfterTheStart) {
    MsgBus bus;
    SilentHandler handler;
    bus.Subscribe("a", "domain", &handler);
    bus.Start();
    bus.Subscribe("b", "domain", &handler);
    EXPECT_EQ(bus.CountSubscriptions(), 2U);
}

TEST(MsgBus, UnsubscribingEndsAllSubscriptionsOfAHandlerAndNoOther) {
    MsgBus bus;
    SilentHandler handler;
    SilentHandler other;
    bus.Subscribe("a", "domain", &handler);
    bus.Subscribe("a", "domain", &other);
    bus.Subscribe("b", "domain", &handler);
    bus.Subscribe("a", "domain", &handler);
    bus.Unsubscribe(&handler);
    EXPECT_EQ(bus.CountSubscriptions(), 1U);
    bus.Unsubscribe(&other);
    EXPECT_EQ(bus.CountSubscriptions(), 0U);
}

TEST(MsgBus, UnsubscribingAHandlerThatIsNotSubscribedDoesNothing) {
    MsgBus bus;
    SilentHandler handler;
    SilentHandler other;
    bus.Unsubscribe(&handler);
    bus.Subscribe("a", "domain", &other);
    bus.Unsubscribe(&handler);
    EXPECT_EQ(bus.CountSubscriptions(), 1U);
}

TEST(MsgBus, TakesSubscriptionsFromManyThreads) {
    MsgBus bus;
    SilentHandler stays;
    bus.Subscribe("a", "domain", &stays);
    std::vector<std::jthread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([&bus] {
            SilentHandler handler;
            for (int round = 0; round < 200; ++round) {
                bus.Subscribe("a", "domain", &handler);
                bus.Start();
                bus.Unsubscribe(&handler);
            }
        });
    }
    threads.clear();
    EXPECT_TRUE(bus.IsStarted());
    EXPECT_EQ(bus.CountSubscriptions(), 1U);
}

}  // namespace

}  // namespace kelto::msgbus
