#include "kelto/osa/Exception.h"
#include "source/AlarmEventSource.h"
#include "tests/support/Matchers.h"
#include "tests/unit/source/CameraSourceFixture.h"

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

namespace kelto::halvek::source {

namespace {

using namespace std::chrono_literals;

class AlarmEventSourceTest : public CameraSourceFixture<AlarmEventSource> {
protected:
    AlarmEventSourceTest() : CameraSourceFixture("Alarm") {}

    void Configure(const core::IniFile::Group& group) {
        source->Configure(group);
        log.Clear();
    }

    void Notify(const std::string& bank, int32_t index, bool active) {
        providers->stateChange.Notify({bank, index, active});
    }
};

TEST_F(AlarmEventSourceTest, IsSubscribedFromItsConstructionOn) {
    EXPECT_EQ(providers->stateChange.Count(), 1U);
    // Unconfigured it watches input 0 of the bank without a name.
    Notify("", 0, true);
    Notify("", 1, true);
    Notify("Local", 0, true);
    EXPECT_EQ(handler.Count(), 1U);
}

TEST_F(AlarmEventSourceTest, ReadsItsInputAndAsksNothingIfTheBankIsNamed) {
    log.Clear();
    source->Configure({{"BankName", "A"}, {"Index", "2"}});
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: \t** Contents of Ini group we're configuring",
                                         "Debug halvek: \t** Key\t\tValue", "Debug halvek: \t** BankName\t\tA",
                                         "Debug halvek: \t** Index\t\t2", "Information halvek: Configured alarm 2"));
    EXPECT_THAT(providers.Calls(), IsEmpty());
}

TEST_F(AlarmEventSourceTest, WithoutAnIndexInputZeroIsWatched) {
    source->Configure({{"BankName", "A"}});
    EXPECT_TRUE(log.Has("Information halvek: Configured alarm 0"));
    Notify("A", 0, true);
    Notify("A", 1, true);
    EXPECT_EQ(handler.Count(), 1U);
}

TEST_F(AlarmEventSourceTest, AnIndexThatCannotBeReadIsAnErrorThatNamesKeyAndValue) {
    for (const char* value : {"", "abc", "1x", " 1", "+1", "2147483648"}) {
        EXPECT_THAT(
            [&] {
                source->Configure({{"BankName", "A"}, {"Index", value}});
            },
            FailsWith(std::string("The value of key Index is not an integer: ") + value));
    }
}

TEST_F(AlarmEventSourceTest, WithoutABankNameTheFirstBankThatIsNotRemoteIsTaken) {
    providers->banks = {"Remote", "Local", "Other"};
    providers->remoteBanks = {"Remote"};
    Configure({{"Index", "2"}});
    EXPECT_THAT(providers.Calls(),
                ElementsAre("AlarmV3.GetBankNames()", "AlarmV3.IsRemote(Remote)", "AlarmV3.IsRemote(Local)"));
    Notify("Remote", 2, true);
    Notify("Other", 2, true);
    EXPECT_EQ(handler.Count(), 0U);
    Notify("Local", 2, true);
    EXPECT_EQ(handler.Count(), 1U);
}

TEST_F(AlarmEventSourceTest, WithAllBanksRemoteOnlyTheBankWithoutANameCanMatch) {
    providers->banks = {"Remote", "Far"};
    providers->remoteBanks = {"Remote", "Far"};
    Configure({});
    EXPECT_THAT(providers.Calls(),
                ElementsAre("AlarmV3.GetBankNames()", "AlarmV3.IsRemote(Remote)", "AlarmV3.IsRemote(Far)"));
    Notify("Remote", 0, true);
    Notify("Far", 0, true);
    EXPECT_EQ(handler.Count(), 0U);
    Notify("", 0, true);
    EXPECT_EQ(handler.Count(), 1U);
}

TEST_F(AlarmEventSourceTest, WithoutAnyBankTheBankNameStaysAsItWas) {
    Configure({{"BankName", "A"}, {"Index", "2"}});
    Configure({{"Index", "2"}});
    EXPECT_THAT(providers.Calls(), ElementsAre("AlarmV3.GetBankNames()"));
    Notify("A", 2, true);
    EXPECT_EQ(handler.Count(), 1U);
}

TEST_F(AlarmEventSourceTest, ABankNameThatIsThereButEmptyIsTakenWithoutAQuestion) {
    providers->banks = {"Local"};
    Configure({{"BankName", ""}});
    EXPECT_THAT(providers.Calls(), IsEmpty());
    Notify("Local", 0, true);
    EXPECT_EQ(handler.Count(), 0U);
    Notify("", 0, true);
    EXPECT_EQ(handler.Count(), 1U);
}

TEST_F(AlarmEventSourceTest, AProviderThatDoesNotAnswerFailsTheConfiguration) {
    providers->banks = {"Local"};
    for (const std::string failing : {"AlarmV3.GetBankNames()", "AlarmV3.IsRemote(Local)"}) {
        providers->onCall = [&](const std::string& call) {
            if (call == failing) {
                throw osa::Exception("no answer to %s", call.c_str());
            }
        };
        log.Clear();
        EXPECT_THAT([&] { source->Configure({}); }, FailsWith("no answer to " + failing));
        EXPECT_FALSE(log.Has("Information halvek: Configured alarm 0"));
    }
}

TEST_F(AlarmEventSourceTest, AnActiveInputFiresAnAlarmEvent) {
    Configure({{"BankName", "A"}, {"Index", "2"}});
    Notify("A", 2, true);
    ASSERT_EQ(handler.Count(), 1U);
    const test::ReceivedEvent event = handler.Events().front();
    EXPECT_EQ(event.kind, "{Event: AlarmEvent}");
    EXPECT_EQ(event.priority, 1);
    EXPECT_THAT(event.properties,
                UnorderedElementsAre(Pair("eventType", "Alarm"), Pair("alarmIndex", "2"), Pair("alarmBank", "A"),
                                     Pair("alarmState", "1"), Key("Timestamp"), Key("FormattedTime")));
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: Received state change for alarm A:2 -> 1",
                                         "Information halvek: firing", "Trace halvek: \tEventSource::Firing Event",
                                         "Trace halvek: \tEventSource::FireEvent Firing Event in the handlers list"));
}

TEST_F(AlarmEventSourceTest, AReleasedInputFiresAgainWithTheOtherState) {
    Configure({{"BankName", "A"}, {"Index", "2"}});
    Notify("A", 2, true);
    Notify("A", 2, false);
    ASSERT_EQ(handler.Count(), 2U);
    EXPECT_EQ(handler.Events()[0].properties.at("alarmState"), "1");
    EXPECT_EQ(handler.Events()[1].properties.at("alarmState"), "0");
    EXPECT_TRUE(log.Has("Debug halvek: Received state change for alarm A:2 -> 0"));
}

TEST_F(AlarmEventSourceTest, TheSameStateTwiceFiresTwice) {
    Configure({{"BankName", "A"}});
    Notify("A", 0, true);
    Notify("A", 0, true);
    EXPECT_EQ(handler.Count(), 2U);
}

TEST_F(AlarmEventSourceTest, AnotherInputOrBankFiresNothingAndLogsOnlyThatItChanged) {
    Configure({{"BankName", "A"}, {"Index", "2"}});
    Notify("A", 3, true);
    Notify("B", 2, true);
    Notify("a", 2, true);
    Notify("", 2, false);
    EXPECT_EQ(handler.Count(), 0U);
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: Received state change for alarm A:3 -> 1",
                                         "Debug halvek: Received state change for alarm B:2 -> 1",
                                         "Debug halvek: Received state change for alarm a:2 -> 1",
                                         "Debug halvek: Received state change for alarm :2 -> 0"));
}

TEST_F(AlarmEventSourceTest, ANegativeIndexIsAnIndex) {
    Configure({{"BankName", "A"}, {"Index", "-1"}});
    Notify("A", -1, true);
    ASSERT_EQ(handler.Count(), 1U);
    EXPECT_EQ(handler.Events().front().properties.at("alarmIndex"), "-1");
}

TEST_F(AlarmEventSourceTest, TheEventTypeIsTheTypeNameGivenAtConstruction) {
    AlarmEventSource other("Doorbell", &env);
    other.AddHandler(&handler);
    other.Configure({{"BankName", "A"}});
    Notify("A", 0, true);
    ASSERT_EQ(handler.Count(), 1U);
    EXPECT_EQ(handler.Events().front().properties.at("eventType"), "Doorbell");
}

TEST_F(AlarmEventSourceTest, StartingOnlySaysSo) {
    log.Clear();
    source->StartListening();
    EXPECT_THAT(log.Lines(), ElementsAre("Information halvek: AlarmEventSource started"));
    EXPECT_EQ(providers->stateChange.Count(), 1U);
}

TEST_F(AlarmEventSourceTest, StartingUnconfiguredFails) {
    class Unconfigured : public AlarmEventSource {
    public:
        using AlarmEventSource::AlarmEventSource;
        bool IsConfigured() const override { return false; }
    };
    Unconfigured unconfigured("Alarm", &env);
    EXPECT_THAT([&] { unconfigured.StartListening(); }, FailsWith("AlarmEventSource::StartListening not configured"));
}

TEST_F(AlarmEventSourceTest, OnceStoppedItStaysSilentAndNeverSubscribesAgain) {
    Configure({{"BankName", "A"}});
    source->StopListening();
    EXPECT_THAT(log.Lines(), ElementsAre("Information halvek: AlarmEventSource stopped"));
    EXPECT_EQ(providers->stateChange.Count(), 0U);
    source->StartListening();
    source->Configure({{"BankName", "A"}});
    EXPECT_EQ(providers->stateChange.Count(), 0U);
    Notify("A", 0, true);
    EXPECT_EQ(handler.Count(), 0U);
}

TEST_F(AlarmEventSourceTest, StoppingOneLeavesTheOtherSubscribed) {
    AlarmEventSource other("Alarm", &env);
    other.AddHandler(&handler);
    source->StopListening();
    Notify("", 0, true);
    EXPECT_EQ(handler.Count(), 1U);
}

TEST_F(AlarmEventSourceTest, DestroyingItUnsubscribesAndKeepsTheClient) {
    log.Clear();
    source.reset();
    EXPECT_EQ(providers->stateChange.Count(), 0U);
    EXPECT_EQ(providers.CountDestroyed("AlarmV3"), 0);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(AlarmEventSourceTest, WhatAHandlerThrowsGoesBackToTheProvider) {
    test::RecordingHandler throwing([](Event&) { throw std::runtime_error("handler"); });
    test::RecordingHandler behind;
    source->AddHandler(&throwing);
    source->AddHandler(&behind);
    EXPECT_THAT([this] { Notify("", 0, true); }, ThrowsMessage<std::runtime_error>(StrEq("handler")));
    EXPECT_EQ(handler.Count(), 1U);
    EXPECT_EQ(behind.Count(), 0U);
    EXPECT_THROW(Notify("", 0, false), std::runtime_error);
    EXPECT_EQ(handler.Count(), 2U) << "the source goes on";
}

TEST_F(AlarmEventSourceTest, AHandlerThatIsNotConfiguredThrowsBeforeItsAction) {
    handler.SetConfigured(false);
    EXPECT_THAT([this] { Notify("", 0, true); }, FailsWith("EventHandler: not configured"));
    EXPECT_EQ(handler.Count(), 0U);
}

TEST_F(AlarmEventSourceTest, StoppingWaitsForADeliveryInProgress) {
    std::promise<void> gate;
    std::atomic<bool> inside = false;
    test::RecordingHandler slow([&, opened = gate.get_future().share()](Event&) {
        inside = true;
        opened.wait();
        inside = false;
    });
    source->AddHandler(&slow);
    std::future<void> delivery = providers->stateChange.NotifyFromOtherThread({"", 0, true});
    ASSERT_TRUE(slow.WaitForCount(1));
    std::future<bool> stopped = std::async(std::launch::async, [&] {
        source->StopListening();
        return inside.load();
    });
    EXPECT_EQ(stopped.wait_for(100ms), std::future_status::timeout);
    gate.set_value();
    EXPECT_FALSE(stopped.get());
    delivery.get();
}

TEST_F(AlarmEventSourceTest, MayBeConfiguredWhileTheProviderTellsOfChanges) {
    std::atomic<bool> going = true;
    std::jthread notifier([&] {
        while (going) {
            Notify("A", 1, true);
            Notify("B", 2, false);
        }
    });
    for (int round = 0; round < 300; ++round) {
        source->Configure({{"BankName", "A"}, {"Index", "1"}});
        source->Configure({{"BankName", "B"}, {"Index", "2"}});
    }
    EXPECT_TRUE(handler.WaitForCount(1));
    going = false;
    notifier.join();
    for (const test::ReceivedEvent& event : handler.Events()) {
        const bool first = event.properties.at("alarmBank") == "A";
        ASSERT_EQ(event.properties.at("alarmIndex"), first ? "1" : "2");
        ASSERT_EQ(event.properties.at("alarmState"), first ? "1" : "0");
    }
}

}  // namespace

}  // namespace kelto::halvek::source
