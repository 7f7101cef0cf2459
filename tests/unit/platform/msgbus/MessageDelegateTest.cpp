#include "kelto/msgbus/MessageDelegate.h"
#include "kelto/msgbus/MsgBusMsg.h"
#include "tests/support/Matchers.h"

#include <memory>
#include <stdexcept>

namespace kelto::msgbus {

namespace {

using ::testing::_;
using ::testing::InSequence;
using ::testing::NiceMock;
using ::testing::SaveArg;
using ::testing::StrictMock;

class MockBus : public IMsgBus {
public:
    MOCK_METHOD(void, Start, (), (override));
    MOCK_METHOD(void, Subscribe, (const MessageFilter&, IMessageHandler*), (override));
    MOCK_METHOD(void, Unsubscribe, (IMessageHandler*), (override));
};

class Listener {
public:
    void Hear(const MsgBusMsg& message) { names.push_back(message.name); }
    void Refuse(const MsgBusMsg& message) { throw std::runtime_error(message.name); }

    std::vector<std::string> names;
};

using Delegate = MessageDelegate<Listener>;

MsgBusMsg MessageNamed(const std::string& name) {
    return {.name = name, .domain = "domain", .signature = "", .size = 0, .arguments = {}};
}

TEST(MessageDelegate, IsSubscribedFromItsConstructionToItsDestruction) {
    StrictMock<MockBus> bus;
    Listener listener;
    IMessageHandler* subscribed = nullptr;
    const MessageFilter filter{.name = "AnalyticsAlert", .domain = "com.zentu.analytics", .sender = "", .path = ""};
    EXPECT_CALL(bus, Subscribe(filter, _)).WillOnce(SaveArg<1>(&subscribed));
    auto delegate =
        std::make_unique<Delegate>(&bus, "AnalyticsAlert", "com.zentu.analytics", &listener, &Listener::Hear);
    EXPECT_EQ(subscribed, delegate.get());
    testing::Mock::VerifyAndClearExpectations(&bus);
    EXPECT_CALL(bus, Unsubscribe(subscribed));
    delegate.reset();
}

TEST(MessageDelegate, CallsTheOperationOfItsObjectWithTheMessage) {
    NiceMock<MockBus> bus;
    Listener listener;
    Delegate delegate(&bus, "a", "domain", &listener, &Listener::Hear);
    IMessageHandler& handler = delegate;
    handler.HandleMessage(MessageNamed("first"));
    handler.HandleMessage(MessageNamed("second"));
    EXPECT_THAT(listener.names, ElementsAre("first", "second"));
}

TEST(MessageDelegate, LetsAnExceptionThroughToTheBus) {
    NiceMock<MockBus> bus;
    Listener listener;
    Delegate delegate(&bus, "a", "domain", &listener, &Listener::Refuse);
    EXPECT_THAT([&] { delegate.HandleMessage(MessageNamed("no")); }, ThrowsMessage<std::runtime_error>("no"));
}

TEST(MessageDelegate, CancellingUnsubscribesOnceAndTheDestructorNotAgain) {
    StrictMock<MockBus> bus;
    Listener listener;
    const InSequence sequence;
    EXPECT_CALL(bus, Subscribe(_, _));
    Delegate delegate(&bus, "a", "domain", &listener, &Listener::Hear);
    EXPECT_CALL(bus, Unsubscribe(&delegate)).Times(1);
    delegate.Cancel();
    delegate.Cancel();
}

TEST(MessageDelegate, MayOutliveTheBusOnceItIsCancelled) {
    auto bus = std::make_unique<NiceMock<MockBus>>();
    Listener listener;
    Delegate delegate(bus.get(), "a", "domain", &listener, &Listener::Hear);
    EXPECT_CALL(*bus, Unsubscribe(&delegate));
    delegate.Cancel();
    bus.reset();
    delegate.Cancel();
}

TEST(MessageDelegate, ASubscriptionThatFailsLeavesNothingToUnsubscribe) {
    StrictMock<MockBus> bus;
    Listener listener;
    EXPECT_CALL(bus, Subscribe(_, _)).WillOnce(testing::Throw(std::runtime_error("refused")));
    EXPECT_THROW(Delegate(&bus, "a", "domain", &listener, &Listener::Hear), std::runtime_error);
}

TEST(MessageDelegate, OneObjectMayHaveSeveralAndEachGoesByItself) {
    StrictMock<MockBus> bus;
    Listener listener;
    EXPECT_CALL(bus, Subscribe(_, _)).Times(2);
    auto first = std::make_unique<Delegate>(&bus, "a", "domain", &listener, &Listener::Hear);
    const Delegate second(&bus, "b", "domain", &listener, &Listener::Hear);
    EXPECT_CALL(bus, Unsubscribe(first.get()));
    first.reset();
    testing::Mock::VerifyAndClearExpectations(&bus);
    EXPECT_CALL(bus, Unsubscribe(const_cast<Delegate*>(&second)));
}

TEST(MsgBusMsg, IsAValueThatCopiesItsNestedArguments) {
    using Value = MsgBusMsg::Value;
    using Values = MsgBusMsg::Values;
    auto original = std::make_unique<MsgBusMsg>(
        MsgBusMsg{.name = "AnalyticsAlert",
                  .domain = "com.zentu.analytics",
                  .signature = "sa(dd)",
                  .size = 0,
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

TEST(MessageFilter, AsksTheBusForNoMoreThanIsWanted) {
    const MessageFilter anybody{.name = "AnalyticsAlert", .domain = "com.zentu.analytics", .sender = "", .path = ""};
    EXPECT_EQ(anybody.ToMatchRule(), "type='signal',interface='com.zentu.analytics',member='AnalyticsAlert'");
    const MessageFilter owner{
        .name = "IdleChanged", .domain = "com.kelto.M", .sender = "com.kelto.M", .path = "/com/kelto/M"};
    EXPECT_EQ(owner.ToMatchRule(),
              "type='signal',interface='com.kelto.M',member='IdleChanged',sender='com.kelto.M',path='/com/kelto/M'");
}

TEST(MessageFilter, DiffersByEachOfItsFields) {
    const MessageFilter filter{.name = "n", .domain = "d", .sender = "s", .path = "p"};
    for (std::string MessageFilter::*const field :
         {&MessageFilter::name, &MessageFilter::domain, &MessageFilter::sender, &MessageFilter::path}) {
        MessageFilter other = filter;
        other.*field = "z";
        EXPECT_NE(filter, other);
        EXPECT_TRUE(filter < other);
        EXPECT_FALSE(other < filter);
    }
    EXPECT_FALSE(filter < filter);
}

}  // namespace

}  // namespace kelto::msgbus
