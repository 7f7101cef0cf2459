#include "env/HalvekEnv.h"
#include "env/HandlerRegistry.h"
#include "event/TimerEvent.h"
#include "handler/RelayEventHandler.h"
#include "kelto/interfaces/IRelayV3Provider.h"
#include "kelto/osa/Exception.h"
#include "tests/fakes/FakeProviders.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

namespace kelto::halvek::handler {

namespace {

using Group = core::IniFile::Group;

class RelayEventHandlerTest : public ::testing::Test {
protected:
    /** Configures a fresh handler; the log and the calls begin anew. */
    void Configure(const Group& group) {
        handler = std::make_unique<RelayEventHandler>(env.GetMsgBus());
        handler->Configure(group);
        log.Clear();
        providers.ClearCalls();
    }

    /** One action; gives the calls that it made. */
    std::vector<std::string> Act() {
        providers.ClearCalls();
        event::TimerEvent event(Event::Properties{{"eventType", "Test"}});
        handler->HandleEvent(event);
        return providers.Calls();
    }

    /** What is sent for a group with "Index" 1 and "BankName" A. */
    std::string Sent(Group group) {
        group.insert({{"Index", "1"}, {"BankName", "A"}});
        Configure(group);
        return Act().at(0);
    }

    test::LogCapture log;
    test::FakeProviders providers;
    HalvekEnv env;
    std::unique_ptr<RelayEventHandler> handler = std::make_unique<RelayEventHandler>(env.GetMsgBus());
};

TEST_F(RelayEventHandlerTest, MakesAClientOfItsOwnOnTheBusAndKeepsItToItsEnd) {
    EXPECT_EQ(providers.CountMade("RelayV3"), 1);
    EXPECT_EQ(providers.BusOf("RelayV3"), env.GetMsgBus());
    RelayEventHandler second(env.GetMsgBus());
    EXPECT_EQ(providers.CountMade("RelayV3"), 2);
    EXPECT_EQ(providers.CountDestroyed("RelayV3"), 0);
    handler.reset();
    EXPECT_EQ(providers.CountDestroyed("RelayV3"), 1);
}

TEST_F(RelayEventHandlerTest, TakesAReadyClientAndOwnsIt) {
    auto client = interfaces::IRelayV3Provider::CreateClient(nullptr);
    handler = std::make_unique<RelayEventHandler>(std::move(client));
    handler->Configure({{"Index", "4"}, {"BankName", "A"}});
    EXPECT_THAT(Act(), ElementsAre("RelayV3.GetConfiguration(A,4)", "RelayV3.Activate(A,4,0)"));
    const int before = providers.CountDestroyed("RelayV3");
    handler.reset();
    EXPECT_EQ(providers.CountDestroyed("RelayV3"), before + 1);
}

TEST_F(RelayEventHandlerTest, IsMadeByTheRegistryUnderRelay) {
    const std::unique_ptr<EventHandler> made = HandlerRegistry::Instance().CreateHandlerByName("Relay", &env);
    EXPECT_NE(dynamic_cast<RelayEventHandler*>(made.get()), nullptr);
    EXPECT_EQ(providers.BusOf("RelayV3"), env.GetMsgBus());
    EXPECT_EQ(HandlerRegistry::Instance().CreateHandlerByName("relay", &env), nullptr);
}

TEST_F(RelayEventHandlerTest, AFreshHandlerIsNotConfigured) {
    EXPECT_FALSE(handler->IsConfigured());
}

TEST_F(RelayEventHandlerTest, ConfiguringRunsTheBaseFirstAndEndsWithTheIndex) {
    log.Clear();
    handler->Configure({{"BankName", "A"}, {"Index", "7"}, {"EnabledDays", "MTWRFSU"}});
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: \t** Contents of Ini group we're configuring",
                                         "Debug halvek: \t** Key\t\tValue", "Debug halvek: \t** BankName\t\tA",
                                         "Debug halvek: \t** EnabledDays\t\tMTWRFSU", "Debug halvek: \t** Index\t\t7",
                                         "Information halvek: \tFilterChain: Configured day filter",
                                         "Information halvek: Configured relay at index: 7"));
}

TEST_F(RelayEventHandlerTest, WithSettingsOfItsOwnTheSameLineEndsTheConfiguration) {
    log.Clear();
    handler->Configure({{"BankName", "A"}, {"Index", "7"}, {"Mode", "1"}});
    EXPECT_EQ(log.Lines().back(), "Information halvek: Configured relay at index: 7");
    EXPECT_EQ(log.Count("Information halvek: Configured relay at index: 7"), 1U);
}

TEST_F(RelayEventHandlerTest, WithoutAnIndexItIsRelayZeroAndConfigured) {
    Configure({{"BankName", "A"}});
    EXPECT_TRUE(handler->IsConfigured());
    EXPECT_THAT(Act(), ElementsAre("RelayV3.GetConfiguration(A,0)", "RelayV3.Activate(A,0,0)"));
}

TEST_F(RelayEventHandlerTest, AnIndexOfMinusOneLeavesItUnconfigured) {
    handler->Configure({{"BankName", "A"}, {"Index", "-1"}});
    EXPECT_TRUE(log.Has("Information halvek: Configured relay at index: -1"));
    EXPECT_FALSE(handler->IsConfigured());
    EXPECT_THAT([this] { Act(); }, FailsWith("EventHandler: not configured"));
    EXPECT_THAT(providers.Calls(), IsEmpty());
}

TEST_F(RelayEventHandlerTest, AnyOtherNegativeIndexIsAnIndex) {
    Configure({{"BankName", "A"}, {"Index", "-2"}});
    EXPECT_TRUE(handler->IsConfigured());
    EXPECT_THAT(Act(), ElementsAre("RelayV3.GetConfiguration(A,-2)", "RelayV3.Activate(A,-2,0)"));
}

TEST_F(RelayEventHandlerTest, AnActionReachedUnconfiguredLogsAnErrorAndCallsNothing) {
    log.Clear();
    event::TimerEvent event(Event::Properties{});
    EXPECT_NO_THROW(handler->PerformAction(event));
    EXPECT_THAT(log.Lines(), ElementsAre("Error halvek: RelayEventHandler: not configured"));
    EXPECT_THAT(providers.Calls(), IsEmpty());
}

TEST_F(RelayEventHandlerTest, WithoutABankNameTheFirstBankThatIsNotRemoteIsTaken) {
    providers->banks = {"Remote", "Local", "Other"};
    providers->remoteBanks = {"Remote"};
    handler->Configure({{"Index", "1"}});
    EXPECT_THAT(providers.Calls(),
                ElementsAre("RelayV3.GetBankNames()", "RelayV3.IsRemote(Remote)", "RelayV3.IsRemote(Local)"));
    EXPECT_THAT(Act(), ElementsAre("RelayV3.GetConfiguration(Local,1)", "RelayV3.Activate(Local,1,0)"));
}

TEST_F(RelayEventHandlerTest, WithAllBanksRemoteTheBankNameStaysEmptyAndIsSentEmpty) {
    providers->banks = {"Remote", "Far"};
    providers->remoteBanks = {"Remote", "Far"};
    handler->Configure({{"Index", "1"}});
    EXPECT_THAT(providers.Calls(),
                ElementsAre("RelayV3.GetBankNames()", "RelayV3.IsRemote(Remote)", "RelayV3.IsRemote(Far)"));
    EXPECT_THAT(Act(), ElementsAre("RelayV3.GetConfiguration(,1)", "RelayV3.Activate(,1,0)"));
}

TEST_F(RelayEventHandlerTest, WithoutAnyBankTheBankNameStaysAsItWas) {
    handler->Configure({{"BankName", "A"}});
    handler->Configure({});
    EXPECT_THAT(providers.Calls(), ElementsAre("RelayV3.GetBankNames()"));
    EXPECT_THAT(Act(), ElementsAre("RelayV3.GetConfiguration(A,0)", "RelayV3.Activate(A,0,0)"));
}

TEST_F(RelayEventHandlerTest, ABankNameThatIsThereButEmptyIsTakenWithoutAQuestion) {
    providers->banks = {"Local"};
    handler->Configure({{"BankName", ""}});
    EXPECT_THAT(providers.Calls(), IsEmpty());
    EXPECT_THAT(Act(), ElementsAre("RelayV3.GetConfiguration(,0)", "RelayV3.Activate(,0,0)"));
}

TEST_F(RelayEventHandlerTest, AServiceThatDoesNotAnswerFailsTheConfiguration) {
    providers->banks = {"Local"};
    for (const std::string failing : {"RelayV3.GetBankNames()", "RelayV3.IsRemote(Local)"}) {
        providers->onCall = [&](const std::string& call) {
            if (call == failing) {
                throw osa::Exception("no answer to %s", call.c_str());
            }
        };
        log.Clear();
        EXPECT_THAT([&] { handler->Configure({}); }, FailsWith("no answer to " + failing));
        EXPECT_FALSE(log.Has("Information halvek: Configured relay at index: 0"));
    }
}

TEST_F(RelayEventHandlerTest, WithOnlyIndexAndBankEachActionReadsTheConfigurationAndActivatesInTheReportedMode) {
    Configure({{"Index", "2"}, {"BankName", "A"}});
    for (const int32_t mode : {0, 1, 2, 3, 7, -1}) {
        providers->relay = {
            .result = true, .polarity = false, .mode = mode, .onIntervalMs = 1, .offIntervalMs = 2, .pulseCount = 3};
        EXPECT_THAT(Act(),
                    ElementsAre("RelayV3.GetConfiguration(A,2)", "RelayV3.Activate(A,2," + std::to_string(mode) + ")"));
    }
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(RelayEventHandlerTest, ThePolarityItKeepsIsTheResultOfTheReadCallAndNotThePolarityReported) {
    for (const bool result : {true, false}) {
        Configure({{"Index", "2"}, {"BankName", "A"}});
        providers->relay = {.result = result,
                            .polarity = !result,
                            .mode = 2,
                            .onIntervalMs = 11,
                            .offIntervalMs = 12,
                            .pulseCount = 13};
        Act();
        const RelayEventHandler::Settings kept = handler->GetSettings();
        EXPECT_EQ(kept.polarity, result);
        EXPECT_EQ(kept.mode, 2);
        EXPECT_EQ(kept.onIntervalMs, 11);
        EXPECT_EQ(kept.offIntervalMs, 12);
        EXPECT_EQ(kept.pulseCount, 13);
        EXPECT_FALSE(kept.hasExplicitSettings);
    }
}

TEST_F(RelayEventHandlerTest, AReadCallThatAnswersFalseStillActivatesTheRelay) {
    Configure({{"Index", "2"}, {"BankName", "A"}});
    providers->relay.result = false;
    providers->relay.mode = 1;
    EXPECT_THAT(Act(), ElementsAre("RelayV3.GetConfiguration(A,2)", "RelayV3.Activate(A,2,1)"));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(RelayEventHandlerTest, WithSettingsOfItsOwnEachActionWritesThemAndActivatesInTheirMode) {
    Configure({{"Index", "2"},
               {"BankName", "A"},
               {"Polarity", "true"},
               {"Mode", "1"},
               {"OnInterval.msec", "100"},
               {"OffInterval.msec", "200"},
               {"PulseCount", "5"}});
    for (int round = 0; round < 2; ++round) {
        EXPECT_THAT(Act(), ElementsAre("RelayV3.SetConfiguration(A,2,1,1,100,200,5)", "RelayV3.Activate(A,2,1)"));
    }
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(RelayEventHandlerTest, WhatTheServiceAnswersToWritingAndActivatingIsIgnored) {
    Configure({{"BankName", "A"}, {"Mode", "1"}});
    providers->relay.result = false;
    EXPECT_THAT(Act(), ElementsAre("RelayV3.SetConfiguration(A,0,0,1,500,500,1)", "RelayV3.Activate(A,0,1)"));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(RelayEventHandlerTest, AnyOneOfTheFiveKeysMakesItWriteWithDefaultsForTheOthers) {
    EXPECT_EQ(Sent({{"PulseCount", "4"}}), "RelayV3.SetConfiguration(A,1,0,3,500,500,4)");
    EXPECT_EQ(Sent({{"Polarity", "yes"}}), "RelayV3.SetConfiguration(A,1,1,3,500,500,1)");
    EXPECT_EQ(Sent({{"Mode", "0"}}), "RelayV3.SetConfiguration(A,1,0,0,500,500,1)");
    EXPECT_EQ(Sent({{"OnInterval.msec", "7"}}), "RelayV3.SetConfiguration(A,1,0,3,7,500,1)");
    EXPECT_EQ(Sent({{"OffInterval.msec", "7"}}), "RelayV3.SetConfiguration(A,1,0,3,500,7,1)");
}

TEST_F(RelayEventHandlerTest, OtherKeysDoNot) {
    EXPECT_EQ(Sent({{"EnabledDays", "MTWRFSU"}, {"mode", "1"}, {"OnInterval", "7"}, {"Type", "Relay"}}),
              "RelayV3.GetConfiguration(A,1)");
}

TEST_F(RelayEventHandlerTest, NumbersOutOfRangeAreCorrectedSilently) {
    const struct {
        const char* key;
        const char* value;
        const char* sent;
    } cases[] = {
        {"Mode", "4", "3,500,500,1"},
        {"Mode", "-1", "3,500,500,1"},
        {"Mode", "2147483647", "3,500,500,1"},
        {"Mode", "0", "0,500,500,1"},
        {"Mode", "3", "3,500,500,1"},
        {"OnInterval.msec", "-1", "3,500,500,1"},
        {"OnInterval.msec", "0", "3,0,500,1"},
        {"OffInterval.msec", "-2147483648", "3,500,500,1"},
        {"OffInterval.msec", "0", "3,500,0,1"},
        {"PulseCount", "0", "3,500,500,1"},
        {"PulseCount", "-3", "3,500,500,1"},
        {"PulseCount", "1", "3,500,500,1"},
        {"PulseCount", "2147483647", "3,500,500,2147483647"},
    };
    for (const auto& [key, value, sent] : cases) {
        EXPECT_EQ(Sent({{key, value}}), std::string("RelayV3.SetConfiguration(A,1,0,") + sent + ")")
            << key << "=" << value;
        EXPECT_THAT(log.Lines(), IsEmpty());
    }
}

TEST_F(RelayEventHandlerTest, AValueThatCannotBeReadIsAnErrorThatNamesKeyAndValue) {
    for (const char* key : {"Index", "Mode", "OnInterval.msec", "OffInterval.msec", "PulseCount"}) {
        EXPECT_THAT(
            [&] {
                handler->Configure({{"BankName", "A"}, {key, "five"}});
            },
            FailsWith("The value of key " + std::string(key) + " is not an integer: five"));
    }
    EXPECT_THAT(
        [&] {
            handler->Configure({{"BankName", "A"}, {"Polarity", "upside down"}});
        },
        FailsWith("The value of key Polarity is neither true nor false: upside down"));
}

TEST_F(RelayEventHandlerTest, WhatWasReadBeforeAFailureHolds) {
    EXPECT_THROW(handler->Configure({{"Index", "2"}, {"BankName", "A"}, {"Mode", "1"}, {"PulseCount", "five"}}),
                 osa::Exception);
    EXPECT_TRUE(handler->IsConfigured());
    EXPECT_THAT(Act(), ElementsAre("RelayV3.SetConfiguration(A,2,0,1,500,500,1)", "RelayV3.Activate(A,2,1)"));
}

TEST_F(RelayEventHandlerTest, SettingsOfItsOwnStayWhenALaterGroupHasNone) {
    handler->Configure({{"BankName", "A"}, {"Mode", "1"}, {"PulseCount", "2"}});
    handler->Configure({{"BankName", "B"}});
    EXPECT_THAT(Act(), ElementsAre("RelayV3.SetConfiguration(B,0,0,1,500,500,2)", "RelayV3.Activate(B,0,1)"));
}

TEST_F(RelayEventHandlerTest, AnErrorOfTheServiceIsLoggedAsItIsAndTheNextEventTriesAgain) {
    Configure({{"BankName", "A"}, {"Mode", "1"}});
    for (const std::string failing : {"RelayV3.SetConfiguration(A,0,0,1,500,500,1)", "RelayV3.Activate(A,0,1)"}) {
        providers->onCall = [&](const std::string& call) {
            if (call == failing) {
                throw osa::Exception("com.kelto.Error: 100%% broken");
            }
        };
        log.Clear();
        EXPECT_EQ(Act().back(), failing) << "nothing follows a call that failed";
        EXPECT_THAT(log.Lines(), ElementsAre("Error halvek: com.kelto.Error: 100% broken"));
    }
    providers->onCall = nullptr;
    EXPECT_THAT(Act(), ElementsAre("RelayV3.SetConfiguration(A,0,0,1,500,500,1)", "RelayV3.Activate(A,0,1)"));
}

TEST_F(RelayEventHandlerTest, AReadCallThatFailsActivatesNothing) {
    Configure({{"BankName", "A"}});
    providers->onCall = [](const std::string&) { throw osa::Exception("gone"); };
    EXPECT_THAT(Act(), ElementsAre("RelayV3.GetConfiguration(A,0)"));
    EXPECT_THAT(log.Lines(), ElementsAre("Error halvek: gone"));
}

TEST_F(RelayEventHandlerTest, AnythingElseThrownIsLoggedAsUnknown) {
    Configure({{"BankName", "A"}, {"Mode", "1"}});
    const std::vector<std::function<void()>> failures = {[] { throw std::runtime_error("library"); }, [] { throw 42; }};
    for (const auto& failure : failures) {
        providers->onCall = [&](const std::string&) { failure(); };
        log.Clear();
        EXPECT_THAT(Act(), ElementsAre(StartsWith("RelayV3.SetConfiguration")));
        EXPECT_THAT(log.Lines(), ElementsAre("Error halvek: RelayEventHandler: Error, unknown exception caught"));
    }
}

TEST_F(RelayEventHandlerTest, TheEventsContentsDoNotMatter) {
    Configure({{"BankName", "A"}, {"Mode", "1"}});
    Event empty(Event::Properties{}, 99);
    handler->HandleEvent(empty);
    EXPECT_THAT(providers.Calls(),
                ElementsAre("RelayV3.SetConfiguration(A,0,0,1,500,500,1)", "RelayV3.Activate(A,0,1)"));
    EXPECT_FALSE(empty.HasProperties());
}

TEST_F(RelayEventHandlerTest, MayActOnSeveralThreadsAtOnceWithoutHoldingAnythingOverACall) {
    Configure({{"Index", "2"}, {"BankName", "A"}});
    providers->relay.mode = 1;
    // The first call waits for a second one: a lock held over the call would keep that from coming.
    std::promise<void> both;
    std::atomic<int> count = 0;
    providers->onCall = [&, arrived = both.get_future().share()](const std::string&) {
        if (++count == 2) {
            both.set_value();
        }
        arrived.wait();
    };
    std::vector<std::jthread> threads;
    for (int number = 0; number < 2; ++number) {
        threads.emplace_back([this] {
            for (int round = 0; round < 100; ++round) {
                event::TimerEvent event(Event::Properties{{"eventType", "Test"}});
                handler->HandleEvent(event);
            }
        });
    }
    threads.clear();
    EXPECT_EQ(count, 400);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

}  // namespace

}  // namespace kelto::halvek::handler
