#include "kelto/core/VoidObjectMethodDelegate1.h"
#include "kelto/interfaces/IAlarmV3Provider.h"
#include "kelto/interfaces/IMotionStateProvider.h"
#include "kelto/interfaces/NotificationPoint.h"
#include "kelto/msgbus/MsgBus.h"
#include "kelto/osa/Exception.h"
#include "tests/fakes/ScriptedService.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"
#include "tests/support/PrivateBus.h"
#include "tests/support/ProcessState.h"
#include "tests/support/WaitUntil.h"
#include "tests/unit/platform/interfaces/InterfaceFile.h"

#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

namespace kelto::interfaces {

namespace {

using namespace std::chrono_literals;
using test::ProviderSignal;
using test::ScriptedService;
using StateChange = IAlarmV3Provider::StateChangeEventArgs;

/** Hears notifications as "<bank>:<index>:<active>" or as the number that they are, then does what a test wants. */
class Listener {
public:
    explicit Listener(std::function<void()> furtherAction = nullptr) : action(std::move(furtherAction)) {}

    void HearAlarm(StateChange change) {
        Hear(change.bankName + ":" + std::to_string(change.index) + ":" + (change.active ? "1" : "0"));
    }
    void HearIdle(int32_t state) { Hear(std::to_string(state)); }

    std::unique_ptr<core::IVoidDelegate1<StateChange>> AlarmDelegate() {
        return std::make_unique<core::VoidObjectMethodDelegate1<Listener, StateChange>>(this, &Listener::HearAlarm);
    }
    std::unique_ptr<core::IVoidDelegate1<int32_t>> IdleDelegate() {
        return std::make_unique<core::VoidObjectMethodDelegate1<Listener, int32_t>>(this, &Listener::HearIdle);
    }

    std::vector<std::string> Heard() const {
        const std::lock_guard lock(mutex);
        return heard;
    }

    bool WaitForCount(size_t count) const {
        return test::WaitUntil([&] { return Heard().size() >= count; });
    }

private:
    void Hear(const std::string& what) {
        {
            const std::lock_guard lock(mutex);
            heard.push_back(what);
        }
        if (action) {
            action();
        }
    }

    const std::function<void()> action;
    mutable std::mutex mutex;
    std::vector<std::string> heard;
};

test::BusSignal StateChanged(const std::string& bank, int32_t index, bool active) {
    return ProviderSignal("AlarmV3", "StateChanged", {bank, index, active});
}

test::BusSignal IdleChanged(int32_t state) {
    return ProviderSignal("MotionState", "IdleChanged", {state});
}

/** A bus that has no thread left for a subscription. */
class RefusingBus : public msgbus::IMsgBus {
public:
    void Start() override {}
    void Subscribe(const msgbus::MessageFilter&, msgbus::IMessageHandler*) override {
        throw osa::Exception("cannot subscribe");
    }
    void Unsubscribe(msgbus::IMessageHandler*) override { ++unsubscribed; }

    int unsubscribed = 0;
};

/** Says by a use of a token that it is still there. */
class TokenDelegate : public core::IVoidDelegate1<int32_t> {
public:
    explicit TokenDelegate(std::shared_ptr<int> sharedToken) : token(std::move(sharedToken)) {}
    void Invoke(int32_t) override {}
    const void* GetTarget() const override { return token.get(); }

private:
    const std::shared_ptr<int> token;
};

class NotificationPointTest : public ::testing::Test {
protected:
    NotificationPointTest() { bus.Start(); }

    INotificationPoint<StateChange>& Alarms() { return alarmClient->OnStateChange(); }
    INotificationPoint<int32_t>& Idles() { return motionClient->OnIdleChange(); }

    const test::PrivateBus daemon;
    const test::LogCapture log{core::LogLevel::Warning};
    ScriptedService alarm{"AlarmV3"};
    ScriptedService motion{"MotionState"};
    Listener listener;
    msgbus::MsgBus bus;
    const std::unique_ptr<IAlarmV3Provider> alarmClient = IAlarmV3Provider::CreateClient(&bus);
    const std::unique_ptr<IMotionStateProvider> motionClient = IMotionStateProvider::CreateClient(&bus);
};

TEST_F(NotificationPointTest, TellsEveryChangeOfAnAlarmInputAsTheInterfaceFileSays) {
    const test::BusSignal signal = StateChanged("Local", 2, true);
    EXPECT_EQ(test::SignatureOf(signal.arguments), InterfaceFile("AlarmV3").GetSignals().at("StateChanged"));
    EXPECT_EQ(InterfaceFile("AlarmV3").GetSignals().size(), 1U);
    Alarms().Add(listener.AlarmDelegate());
    alarm.Emit({signal, StateChanged("Remote", -7, false), StateChanged("", INT32_MAX, true), signal});
    ASSERT_TRUE(listener.WaitForCount(4));
    EXPECT_THAT(listener.Heard(), ElementsAre("Local:2:1", "Remote:-7:0", ":2147483647:1", "Local:2:1"));
}

TEST_F(NotificationPointTest, TellsEveryIdleStateAsTheInterfaceFileSays) {
    EXPECT_EQ(test::SignatureOf(IdleChanged(0).arguments), InterfaceFile("MotionState").GetSignals().at("IdleChanged"));
    EXPECT_EQ(InterfaceFile("MotionState").GetSignals().size(), 1U);
    Idles().Add(listener.IdleDelegate());
    motion.Emit({IdleChanged(0), IdleChanged(1), IdleChanged(0), IdleChanged(-1)});
    ASSERT_TRUE(listener.WaitForCount(4));
    EXPECT_THAT(listener.Heard(), ElementsAre("0", "1", "0", "-1"));
}

TEST_F(NotificationPointTest, WhatIsSaidRightAfterADelegateWasAddedIsHeardTwoHundredTimes) {
    for (int round = 0; round < 200; ++round) {
        Listener passing;
        Idles().Add(passing.IdleDelegate());
        motion.Emit(IdleChanged(round));
        ASSERT_TRUE(passing.WaitForCount(1)) << "round " << round;
        Idles().Remove(&passing);
    }
}

TEST_F(NotificationPointTest, ADelegateThatCannotBeSubscribedIsNotKept) {
    RefusingBus refusing;
    const auto token = std::make_shared<int>();
    {
        NotificationPoint<int32_t> point(&refusing, {}, [](const msgbus::MsgBusMsg&) { return 0; });
        EXPECT_THROW(point.Add(std::make_unique<TokenDelegate>(token)), osa::Exception);
        EXPECT_EQ(token.use_count(), 1);
    }
    EXPECT_EQ(refusing.unsubscribed, 0);
}

TEST_F(NotificationPointTest, OneMatchOnTheBusServesAllDelegatesOfAProvider) {
    Listener second;
    Listener third;
    for (Listener* each : {&listener, &second, &third}) {
        Idles().Add(each->IdleDelegate());
        Alarms().Add(each->AlarmDelegate());
    }
    EXPECT_EQ(daemon.CountMatchRules("com.kelto.MotionState"), 1U);
    EXPECT_EQ(daemon.CountMatchRules("com.kelto.AlarmV3"), 1U);
    EXPECT_EQ(daemon.CountMatchRules(""), 2U);
    motion.Emit(IdleChanged(0));
    for (Listener* each : {&listener, &second, &third}) {
        EXPECT_TRUE(each->WaitForCount(1));
        Idles().Remove(each);
        Alarms().Remove(each);
    }
    EXPECT_TRUE(test::WaitUntil([&] { return daemon.MatchRules().empty(); }));
}

TEST_F(NotificationPointTest, AnotherProcessCannotFakeAnAlarmOrAnIdleChange) {
    Listener idles;
    Alarms().Add(listener.AlarmDelegate());
    Idles().Add(idles.IdleDelegate());
    ScriptedService impostor("");
    impostor.Emit({StateChanged("Local", 2, true), IdleChanged(0)});
    // Not even one that owns another of the camera's names.
    motion.Emit(StateChanged("Local", 2, true));
    alarm.Emit(IdleChanged(0));
    alarm.Emit(StateChanged("Local", 3, false));
    motion.Emit(IdleChanged(5));
    ASSERT_TRUE(listener.WaitForCount(1));
    ASSERT_TRUE(idles.WaitForCount(1));
    EXPECT_THAT(listener.Heard(), ElementsAre("Local:3:0"));
    EXPECT_THAT(idles.Heard(), ElementsAre("5"));
    Idles().Remove(&idles);
}

TEST_F(NotificationPointTest, ASignalAddressedToThisProcessIsNoChange) {
    Alarms().Add(listener.AlarmDelegate());
    ScriptedService impostor("");
    for (const std::string& name : daemon.UniqueNames()) {
        test::BusSignal addressed = StateChanged("Local", 2, true);
        addressed.destination = name;
        impostor.Emit(addressed);
        alarm.Emit(addressed);
    }
    alarm.Emit(StateChanged("Local", 3, false));
    ASSERT_TRUE(listener.WaitForCount(1));
    EXPECT_THAT(listener.Heard(), ElementsAre("Local:3:0"));
}

TEST_F(NotificationPointTest, ASignalFromAnotherObjectOrOfAnotherInterfaceIsNoChange) {
    Alarms().Add(listener.AlarmDelegate());
    test::BusSignal otherPath = StateChanged("Local", 2, true);
    otherPath.path = "/com/kelto/AlarmV2";
    test::BusSignal otherInterface = StateChanged("Local", 2, true);
    otherInterface.interface = "com.kelto.AlarmV2";
    test::BusSignal otherMember = StateChanged("Local", 2, true);
    otherMember.member = "StateChange";
    alarm.Emit({otherPath, otherInterface, otherMember, StateChanged("Local", 3, false)});
    ASSERT_TRUE(listener.WaitForCount(1));
    EXPECT_THAT(listener.Heard(), ElementsAre("Local:3:0"));
}

TEST_F(NotificationPointTest, AServiceThatComesLaterOrComesBackIsHeard) {
    Listener hearing;
    std::optional<ScriptedService> service;
    {
        const test::PrivateBus other;
        msgbus::MsgBus otherBus;
        const auto client = IAlarmV3Provider::CreateClient(&otherBus);
        client->OnStateChange().Add(hearing.AlarmDelegate());
        otherBus.Start();
        for (size_t round = 1; round <= 3; ++round) {
            service.emplace("AlarmV3");
            service->Emit(StateChanged("Local", static_cast<int32_t>(round), true));
            ASSERT_TRUE(hearing.WaitForCount(round));
            service.reset();
        }
        client->OnStateChange().Remove(&hearing);
    }
    EXPECT_THAT(hearing.Heard(), ElementsAre("Local:1:1", "Local:2:1", "Local:3:1"));
}

TEST_F(NotificationPointTest, AChangeWithOtherArgumentsIsLoggedAndDeliveryGoesOn) {
    Alarms().Add(listener.AlarmDelegate());
    alarm.Emit({ProviderSignal("AlarmV3", "StateChanged", {std::string("Local"), 2}),
                ProviderSignal("AlarmV3", "StateChanged", {std::string("Local"), true, 2}),
                ProviderSignal("AlarmV3", "StateChanged", {}),
                ProviderSignal("AlarmV3", "StateChanged", {std::string("Local"), 2, true, 1}),
                StateChanged("Local", 3, false)});
    ASSERT_TRUE(listener.WaitForCount(1));
    EXPECT_THAT(listener.Heard(), ElementsAre("Local:3:0"));
    const std::string error = "Error kelto.msgbus: Message com.kelto.AlarmV3.StateChanged has arguments ";
    EXPECT_THAT(log.Lines(), ElementsAre(error + "\"si\" instead of \"sib\"", error + "\"sbi\" instead of \"sib\"",
                                         error + "\"\" instead of \"sib\"", error + "\"sibi\" instead of \"sib\""));
}

TEST_F(NotificationPointTest, AnIdleChangeWithOtherArgumentsIsLoggedAndDeliveryGoesOn) {
    Idles().Add(listener.IdleDelegate());
    motion.Emit({ProviderSignal("MotionState", "IdleChanged", {std::string("0")}), IdleChanged(4)});
    ASSERT_TRUE(listener.WaitForCount(1));
    EXPECT_THAT(listener.Heard(), ElementsAre("4"));
    EXPECT_THAT(log.Lines(), ElementsAre("Error kelto.msgbus: Message com.kelto.MotionState.IdleChanged has arguments "
                                         "\"s\" instead of \"i\""));
}

TEST_F(NotificationPointTest, WhatADelegateThrowsIsLoggedAndDeliveryGoesOn) {
    Listener throwing([count = 0]() mutable {
        switch (++count) {
            case 1:
                throw osa::Exception("the platform's");
            case 2:
                throw std::runtime_error("the library's");
            case 3:
                throw 42;
            default:
                break;
        }
    });
    Idles().Add(throwing.IdleDelegate());
    motion.Emit({IdleChanged(1), IdleChanged(2), IdleChanged(3), IdleChanged(4)});
    ASSERT_TRUE(throwing.WaitForCount(4));
    EXPECT_THAT(log.Lines(), ElementsAre("Error kelto.msgbus: the platform's", "Error kelto.msgbus: the library's",
                                         "Error kelto.msgbus: A message handler threw an unknown exception"));
    Idles().Remove(&throwing);
}

TEST_F(NotificationPointTest, ADelegateThatBlocksDelaysNoOther) {
    std::promise<void> gate;
    Listener blocked([opened = gate.get_future().share()] { opened.wait(); });
    Idles().Add(blocked.IdleDelegate());
    Idles().Add(listener.IdleDelegate());
    motion.Emit({IdleChanged(1), IdleChanged(2), IdleChanged(3)});
    EXPECT_TRUE(listener.WaitForCount(3));
    EXPECT_TRUE(blocked.WaitForCount(1));
    EXPECT_EQ(blocked.Heard().size(), 1U);
    gate.set_value();
    EXPECT_TRUE(blocked.WaitForCount(3));
    Idles().Remove(&blocked);
}

TEST_F(NotificationPointTest, RemoveTakesAllDelegatesOfAnObjectAndNoOther) {
    Listener other;
    Idles().Add(listener.IdleDelegate());
    Idles().Add(other.IdleDelegate());
    Idles().Add(listener.IdleDelegate());
    motion.Emit(IdleChanged(1));
    ASSERT_TRUE(listener.WaitForCount(2));
    Idles().Remove(&listener);
    Idles().Remove(&listener);
    motion.Emit(IdleChanged(2));
    ASSERT_TRUE(other.WaitForCount(2));
    EXPECT_THAT(listener.Heard(), ElementsAre("1", "1"));
    Idles().Remove(&other);
}

TEST_F(NotificationPointTest, RemoveWaitsForTheCallInFlightSoThatTheObjectMayGo) {
    std::promise<void> gate;
    auto leaving = std::make_unique<Listener>([opened = gate.get_future().share()] { opened.wait(); });
    Idles().Add(leaving->IdleDelegate());
    motion.Emit({IdleChanged(1), IdleChanged(2)});
    ASSERT_TRUE(leaving->WaitForCount(1));
    std::future<size_t> removed = std::async(std::launch::async, [&] {
        Idles().Remove(leaving.get());
        const size_t count = leaving->Heard().size();
        leaving.reset();
        return count;
    });
    EXPECT_EQ(removed.wait_for(100ms), std::future_status::timeout);
    gate.set_value();
    EXPECT_EQ(removed.get(), 1U);
}

/** Takes itself away, and goes, in the first call. */
class OneShot {
public:
    OneShot(INotificationPoint<int32_t>& notificationPoint, std::unique_ptr<OneShot>& myOwner,
            std::promise<void>& goneSignal)
        : point(notificationPoint), self(myOwner), gone(goneSignal) {}

    void Hear(int32_t) {
        std::promise<void>& told = gone;
        point.Remove(this);
        self.reset();
        told.set_value();
    }

private:
    INotificationPoint<int32_t>& point;
    std::unique_ptr<OneShot>& self;
    std::promise<void>& gone;
};

TEST_F(NotificationPointTest, RemoveFromInsideACallReturnsAtOnceAndTheObjectMayGo) {
    const size_t threads = test::CountThreads();
    for (int round = 0; round < 20; ++round) {
        std::promise<void> gone;
        std::unique_ptr<OneShot> oneShot;
        oneShot = std::make_unique<OneShot>(Idles(), oneShot, gone);
        Idles().Add(std::make_unique<core::VoidObjectMethodDelegate1<OneShot, int32_t>>(oneShot.get(), &OneShot::Hear));
        motion.Emit({IdleChanged(1), IdleChanged(2)});
        gone.get_future().get();
    }
    EXPECT_TRUE(test::WaitUntil([&] { return test::CountThreads() == threads; }));
    // Further changes may wait already when the delegate goes.
    std::istringstream records(log.Text());
    for (std::string record; std::getline(records, record);) {
        EXPECT_THAT(record, EndsWith(" messages were dropped, their subscription has ended"));
    }
}

TEST_F(NotificationPointTest, AddingNeverFailsForWantOfABus) {
    const test::PrivateBus nobody(test::PrivateBus::State::Absent);
    msgbus::MsgBus lonely;
    lonely.Start();
    const auto client = IMotionStateProvider::CreateClient(&lonely);
    EXPECT_NO_THROW(client->OnIdleChange().Add(listener.IdleDelegate()));
    EXPECT_NO_THROW(client->OnIdleChange().Remove(&listener));
}

TEST_F(NotificationPointTest, AClientThatGoesTakesItsDelegatesWithIt) {
    const size_t threads = test::CountThreads();
    auto passing = IMotionStateProvider::CreateClient(&bus);
    passing->OnIdleChange().Add(listener.IdleDelegate());
    motion.Emit(IdleChanged(1));
    ASSERT_TRUE(listener.WaitForCount(1));
    passing.reset();
    EXPECT_TRUE(test::WaitUntil([&] { return test::CountThreads() == threads && daemon.MatchRules().empty(); }));
}

TEST_F(NotificationPointTest, DelegatesComeAndGoTwoHundredTimesWhileChangesFlow) {
    std::atomic<bool> emitting = true;
    std::jthread emitter([&] {
        while (emitting) {
            motion.Emit({IdleChanged(0), IdleChanged(1)});
        }
    });
    for (int round = 0; round < 200; ++round) {
        Listener first;
        Listener second;
        Idles().Add(first.IdleDelegate());
        Idles().Add(second.IdleDelegate());
        if (round % 10 == 0) {
            EXPECT_TRUE(first.WaitForCount(1));
        }
        Idles().Remove(&first);
        Idles().Remove(&second);
    }
    emitting = false;
}

}  // namespace

}  // namespace kelto::interfaces
