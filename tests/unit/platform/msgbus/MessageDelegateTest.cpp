#include "kelto/msgbus/MessageDelegate.h"
#include "kelto/msgbus/MsgBus.h"
#include "kelto/msgbus/MsgBusMsg.h"

#include <gmock/gmock.h>

#include <memory>
#include <stdexcept>

namespace kelto::msgbus {

namespace {

using ::testing::_;
using ::testing::ElementsAre;
using ::testing::InSequence;
using ::testing::SaveArg;
using ::testing::StrictMock;

class MockBus : public IMsgBus {
public:
    MOCK_METHOD(void, Start, (), (override));
    MOCK_METHOD(void, Subscribe, (const std::string&, const std::string&, IMessageHandler*), (override));
    MOCK_METHOD(void, Unsubscribe, (IMessageHandler*), (override));
};

class Listener {
public:
    void Hear(const MsgBusMsg& message) { names.push_back(message.name); }
    void Refuse(const MsgBusMsg& message) { throw std::runtime_error(message.name); }

    std::vector<std::string> names;
};

using Delegate = MessageDelegate<Listener>;

TEST(MessageDelegate, IsSubscribedFromItsConstructionToItsDestruction) {
    StrictMock<MockBus> bus;
    Listener listener;
    IMessageHandler* subscribed = nullptr;
    EXPECT_CALL(bus, Subscribe("AnalyticsAlert", "com.zentu.analytics", _)).WillOnce(SaveArg<2>(&subscribed));
    auto delegate =
        std::make_unique<Delegate>(&bus, "AnalyticsAlert", "com.zentu.analytics", &listener, &Listener::Hear);
    EXPECT_EQ(subscribed, delegate.get());
    testing::Mock::VerifyAndClearExpectations(&bus);
    EXPECT_CALL(bus, Unsubscribe(subscribed));
    delegate.reset();
}

TEST(MessageDelegate, CallsTheOperationOfItsObjectWithTheMessage) {
    MsgBus bus;
    Listener listener;
    Delegate delegate(&bus, "a", "domain", &listener, &Listener::Hear);
    IMessageHandler& handler = delegate;
    handler.HandleMessage({.name = "first", .domain = "domain", .signature = "", .arguments = {}});
    handler.HandleMessage({.name = "second", .domain = "domain", .signature = "", .arguments = {}});
    EXPECT_THAT(listener.names, ElementsAre("first", "second"));
}

TEST(MessageDelegate, LetsAnExceptionThroughToTheBus) {
    MsgBus bus;
    Listener listener;
    Delegate delegate(&bus, "a", "domain", &listener, &Listener::Refuse);
    const MsgBusMsg message{.name = "no", .domain = "", .signature = "", .arguments = {}};
    EXPECT_THAT([&] { delegate.HandleMessage(message); }, testing::ThrowsMessage<std::runtime_error>("no"));
}

TEST(MessageDelegate, CancellingUnsubscribesOnceAndTheDestructorNotAgain) {
    StrictMock<MockBus> bus;
    Listener listener;
    const InSequence sequence;
    EXPECT_CALL(bus, Subscribe(_, _, _));
    Delegate delegate(&bus, "a", "domain", &listener, &Listener::Hear);
    EXPECT_CALL(bus, Unsubscribe(&delegate)).Times(1);
    delegate.Cancel();
    delegate.Cancel();
}

TEST(MessageDelegate, MayOutliveTheBusOnceItIsCancelled) {
    auto bus = std::make_unique<MsgBus>();
    Listener listener;
    Delegate delegate(bus.get(), "a", "domain", &listener, &Listener::Hear);
    delegate.Cancel();
    EXPECT_EQ(bus->CountSubscriptions(), 0U);
    bus.reset();
    delegate.Cancel();
}

TEST(MessageDelegate, ASubscriptionThatFailsLeavesNothingToUnsubscribe) {
    StrictMock<MockBus> bus;
    Listener listener;
    EXPECT_CALL(bus, Subscribe(_, _, _)).WillOnce(testing::Throw(std::runtime_error("refused")));
    EXPECT_THROW(Delegate(&bus, "a", "domain", &listener, &Listener::Hear), std::runtime_error);
}

TEST(MessageDelegate, OneObjectMayHaveSeveralAndEachGoesByItself) {
    MsgBus bus;
    Listener listener;
    auto first = std::make_unique<Delegate>(&bus, "a", "domain", &listener, &Listener::Hear);
    const Delegate second(&bus, "b", "domain", &listener, &Listener::Hear);
    EXPECT_EQ(bus.CountSubscriptions(), 2U);
    first.reset();
    EXPECT_EQ(bus.CountSubscriptions(), 1U);
}

TEST(MsgBusMsg, IsAValueThatCopiesItsNestedArguments) {
    using Value = MsgBusMsg::Value;
    using Values = MsgBusMsg::Values;
    auto original = std::make_unique<MsgBusMsg>(
        MsgBusMsg{.name = "AnalyticsAlert",
                  .domain = "com.zentu.analytics",
                  .signature = "sa(dd)",
                  .arguments = {Value{std::string("rule")}, Value{Values{Value{Values{Value{1.5}, Value{2.5}}}}}}});
    const MsgBusMsg copy = *original;
    original.reset();
    EXPECT_EQ(copy.name, "AnalyticsAlert");
    EXPECT_EQ(copy.domain, "com.zentu.analytics");
    EXPECT_EQ(copy.signature, "sa(dd)");
    ASSERT_EQ(copy.arguments.size(), 2U);
    EXPECT_EQ(std::get<std::string>(copy.arguments[0].content), "rule");
    const auto& points = std::get<Values>(copy.arguments[1].content);
    EXPECT_EQ(std::get<double>(std::get<Values>(points[0].content)[1].content), 2.5);
}

}  // namespace

}  // namespace kelto::msgbus
