#include "env/AlarmCommon.h"
#include "env/HalvekEnv.h"
#include "env/HandlerRegistry.h"
#include "env/MotionStateCommon.h"
#include "kelto/core/IniFile.h"
#include "kelto/osa/Exception.h"
#include "monitor/EventMonitor.h"
#include "tests/fakes/FailingAllocation.h"
#include "tests/fakes/FakeProviders.h"
#include "tests/support/FreshProcess.h"
#include "tests/support/LetPass.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"

#include <new>

namespace kelto::halvek {

namespace {

using namespace std::chrono_literals;

struct AlarmKind {
    using Component = AlarmCommon;
    static constexpr const char* id = "AlarmCommonComponent";
    static constexpr const char* provider = "AlarmV3";
};

struct MotionStateKind {
    using Component = MotionStateCommon;
    static constexpr const char* id = "MotionStateCommonComponent";
    static constexpr const char* provider = "MotionState";
};

class OtherComponent : public HalvekEnv::IHalvekComponent {};

/** What the two shared components have in common: everything but the provider and the id. */
template <typename Kind>
class SharedComponent : public ::testing::Test {
protected:
    using Component = typename Kind::Component;

    int CountMade() const { return providers.CountMade(Kind::provider); }
    int CountDestroyed() const { return providers.CountDestroyed(Kind::provider); }

    const test::LogCapture log;
    test::FakeProviders providers;
    HalvekEnv env;
};

using Kinds = ::testing::Types<AlarmKind, MotionStateKind>;
TYPED_TEST_SUITE(SharedComponent, Kinds);

TYPED_TEST(SharedComponent, IsMadeAtFirstUseAndRegisteredUnderItsId) {
    EXPECT_EQ(this->env.GetComponent(TypeParam::id), nullptr);
    EXPECT_EQ(this->CountMade(), 0);
    auto* const component = TypeParam::Component::GetInstance(&this->env);
    ASSERT_NE(component, nullptr);
    EXPECT_EQ(this->env.GetComponent(TypeParam::id), component);
    EXPECT_NE(component->GetClient(), nullptr);
    EXPECT_EQ(this->providers.BusOf(TypeParam::provider), this->env.GetMsgBus());
}

TYPED_TEST(SharedComponent, IsTheSameEverAfterWithOneClient) {
    auto* const component = TypeParam::Component::GetInstance(&this->env);
    EXPECT_EQ(TypeParam::Component::GetInstance(&this->env), component);
    EXPECT_EQ(TypeParam::Component::GetInstance(&this->env)->GetClient(), component->GetClient());
    EXPECT_EQ(this->CountMade(), 1);
}

TYPED_TEST(SharedComponent, EachEnvironmentHasItsOwn) {
    HalvekEnv other;
    EXPECT_NE(TypeParam::Component::GetInstance(&this->env), TypeParam::Component::GetInstance(&other));
    EXPECT_EQ(this->CountMade(), 2);
}

TYPED_TEST(SharedComponent, NeedsAnEnvironment) {
    const auto fails = FailsWith("Parameter pEnv was NULL");
    EXPECT_THAT([] { TypeParam::Component::GetInstance(nullptr); }, fails);
    EXPECT_THAT([] { typename TypeParam::Component(nullptr); }, fails);
    EXPECT_EQ(this->CountMade(), 0);
}

TYPED_TEST(SharedComponent, OneOfAnotherClassUnderItsIdCountsAsNotFoundSoTheIdIsTaken) {
    OtherComponent other;
    this->env.RegisterComponent(TypeParam::id, &other);
    EXPECT_THAT([this] { TypeParam::Component::GetInstance(&this->env); },
                FailsWith(std::string("ComponentId ") + TypeParam::id + " already taken"));
    EXPECT_EQ(this->env.GetComponent(TypeParam::id), &other);
    EXPECT_EQ(this->CountDestroyed(), this->CountMade()) << "the one that could not be registered is gone";
}

TYPED_TEST(SharedComponent, RegisteringItAgainThrowsAndKeepsTheFirst) {
    auto* const component = TypeParam::Component::GetInstance(&this->env);
    OtherComponent other;
    EXPECT_THAT([&] { this->env.RegisterComponent(TypeParam::id, &other); },
                FailsWith(std::string("ComponentId ") + TypeParam::id + " already taken"));
    EXPECT_EQ(TypeParam::Component::GetInstance(&this->env), component);
}

TYPED_TEST(SharedComponent, AFailureOfCreateClientComesOutUnchangedAndRegistersNothing) {
    this->providers->onCreate = [](const std::string& provider) { throw osa::Exception("no %s", provider.c_str()); };
    EXPECT_THAT([this] { TypeParam::Component::GetInstance(&this->env); },
                FailsWith(std::string("no ") + TypeParam::provider));
    this->providers->onCreate = [](const std::string&) { throw 42; };
    EXPECT_THROW(TypeParam::Component::GetInstance(&this->env), int);
    EXPECT_EQ(this->env.GetComponent(TypeParam::id), nullptr);
    this->providers->onCreate = nullptr;
    EXPECT_NE(TypeParam::Component::GetInstance(&this->env), nullptr) << "the next source tries again";
}

TYPED_TEST(SharedComponent, OneThatGetsNoMemoryIsNotRegistered) {
    // What keeps all components is made with the first one of the process.
    test::ExpectInFreshProcess([this] {
        const auto getWithout = [this](size_t goodOnes) {
            const test::FailingAllocation failing(goodOnes);
            try {
                TypeParam::Component::GetInstance(&this->env);
            } catch (const std::bad_alloc&) {
            }
            return test::FailingAllocation::HasFailed();
        };
        size_t failures = 0;
        for (; getWithout(failures); ++failures) {
            ASSERT_EQ(this->env.GetComponent(TypeParam::id), nullptr) << "after " << failures << " allocations";
        }
        EXPECT_GT(failures, 0U);
        EXPECT_NE(this->env.GetComponent(TypeParam::id), nullptr);
    });
}

TYPED_TEST(SharedComponent, OutlivesItsEnvironment) {
    {
        HalvekEnv passing;
        TypeParam::Component::GetInstance(&passing);
    }
    EXPECT_EQ(this->CountMade(), 1);
    EXPECT_EQ(this->CountDestroyed(), 0);
}

TYPED_TEST(SharedComponent, OneOfOnesOwnTakesItsClientWithIt) {
    { const typename TypeParam::Component own(&this->env); }
    EXPECT_EQ(this->CountMade(), 1);
    EXPECT_EQ(this->CountDestroyed(), 1);
    EXPECT_EQ(this->env.GetComponent(TypeParam::id), nullptr);
}

/** An event monitor with the daemon's own sources and handlers, on fake providers. */
class CameraMonitor : public ::testing::Test {
protected:
    void Configure(const core::IniFile::Groups& groups) {
        core::IniFile ini;
        for (const auto& [name, group] : groups) {
            ini.AddGroup(name) = group;
        }
        monitor.Configure(ini);
    }

    static core::IniFile::Groups TwoParkSources() {
        return {{"Events/Source#1", {{"Type", "Park"}}},
                {"Events/Source#1/Park", {{"DwellTime.sec", "0"}}},
                {"Events/Source#2", {{"Type", "Park"}}},
                {"Events/Source#2/Park", {{"DwellTime.sec", "0"}}}};
    }

    static core::IniFile::Groups AlarmWithRelay(const core::IniFile::Group& alarm, const core::IniFile::Group& relay) {
        return {{"Events/Source#1", {{"Type", "Alarm"}}},
                {"Events/Source#1/Alarm", alarm},
                {"Events/Handler#1", {{"Type", "Relay"}}},
                {"Events/Handler#1/Relay", relay},
                {"Events/Handler#1/SourceIds", {{"1", "Events/Source#1"}}}};
    }

    test::LogCapture log;
    test::FakeProviders providers;
    EventMonitor monitor{&HandlerRegistry::Instance()};
};

TEST_F(CameraMonitor, TwoParkSourcesShareOneClientAndAReloadKeepsIt) {
    for (int round = 1; round <= 3; ++round) {
        Configure(TwoParkSources());
        EXPECT_EQ(providers.CountMade("MotionState"), 1);
        EXPECT_EQ(providers.CountDestroyed("MotionState"), 0);
        EXPECT_EQ(providers->idleChange.Count(), 2U);
        EXPECT_EQ(providers->idleChange.CountAdded(), 2U * static_cast<size_t>(round));
    }
}

TEST_F(CameraMonitor, AlarmSourcesShareOneClientOverReloadsWhileEachHandlerHasItsOwn) {
    for (int round = 1; round <= 3; ++round) {
        Configure(AlarmWithRelay({{"BankName", "A"}}, {{"BankName", "A"}}));
        EXPECT_EQ(providers.CountMade("AlarmV3"), 1);
        EXPECT_EQ(providers->stateChange.Count(), 1U);
        EXPECT_EQ(providers.CountMade("RelayV3"), round);
        EXPECT_EQ(providers.CountDestroyed("RelayV3"), round - 1);
    }
}

TEST_F(CameraMonitor, AnAlarmDrivesTheRelay) {
    Configure(AlarmWithRelay({{"BankName", "A"}}, {{"BankName", "B"}, {"Mode", "2"}}));
    providers->stateChange.Notify({"A", 0, true});
    EXPECT_THAT(providers.Calls(),
                ElementsAre("RelayV3.SetConfiguration(B,0,0,2,500,500,1)", "RelayV3.Activate(B,0,2)"));
}

TEST_F(CameraMonitor, AnAlarmSourceWhoseProviderDoesNotAnswerIsSkippedWithAWarningUntilTheNextReload) {
    providers->onCall = [](const std::string&) { throw osa::Exception("com.kelto.Error: no answer"); };
    Configure(AlarmWithRelay({}, {{"BankName", "A"}}));
    EXPECT_EQ(log.Count("Warning halvek: \tError LoadSources: com.kelto.Error: no answer"), 1U);
    EXPECT_EQ(providers->stateChange.Count(), 0U) << "it is destroyed at once";
    providers->onCall = nullptr;
    providers->banks = {"Local"};
    Configure(AlarmWithRelay({}, {{"BankName", "A"}}));
    EXPECT_EQ(providers->stateChange.Count(), 1U);
}

TEST_F(CameraMonitor, ARelayHandlerWhoseProviderDoesNotAnswerIsSkippedWithAWarning) {
    providers->onCall = [](const std::string&) { throw osa::Exception("com.kelto.Error: no answer"); };
    Configure(AlarmWithRelay({{"BankName", "A"}}, {}));
    EXPECT_EQ(log.Count("Warning halvek: Error LoadHandlers: com.kelto.Error: no answer"), 1U);
    EXPECT_EQ(providers.CountDestroyed("RelayV3"), 1) << "it is destroyed at once";
    providers.ClearCalls();
    providers->stateChange.Notify({"A", 0, true});
    EXPECT_THAT(providers.Calls(), IsEmpty());
}

TEST_F(CameraMonitor, WithBankNamesNothingIsAsked) {
    providers->onCall = [](const std::string&) { throw osa::Exception("asked"); };
    Configure(AlarmWithRelay({{"BankName", ""}}, {{"BankName", ""}}));
    EXPECT_THAT(providers.Calls(), IsEmpty());
    EXPECT_EQ(providers->stateChange.Count(), 1U);
}

TEST_F(CameraMonitor, AClientThatCannotBeMadeCostsItsSourceOnly) {
    providers->onCreate = [](const std::string& provider) {
        if (provider == "MotionState") {
            throw osa::Exception("no client");
        }
    };
    core::IniFile::Groups groups = AlarmWithRelay({{"BankName", "A"}}, {{"BankName", "A"}});
    groups["Events/Source#0"] = {{"Type", "Park"}};
    Configure(groups);
    EXPECT_TRUE(log.Has("Warning halvek: \tError LoadSources: no client"));
    EXPECT_EQ(providers->stateChange.Count(), 1U);
}

TEST_F(CameraMonitor, AParkSourceThatCannotAskIsKeptAndWarnsOnce) {
    providers->onCall = [](const std::string&) { throw osa::Exception("no answer"); };
    Configure(TwoParkSources());
    EXPECT_EQ(log.Count("Warning ParkEventSource: Failed when querying current idle state."), 2U);
    EXPECT_EQ(providers->idleChange.Count(), 2U);
    EXPECT_EQ(log.Count("Information ParkEventSource: ParkEventSource started"), 2U);
}

TEST_F(CameraMonitor, AnUnconfiguredHandlerEndsAParkSourceForGood) {
    core::IniFile::Groups groups = {{"Events/Source#1", {{"Type", "Park"}}},
                                    {"Events/Source#1/Park", {{"DwellTime.sec", "0"}}},
                                    {"Events/Handler#1", {{"Type", "Relay"}, {"Index", "-1"}, {"BankName", "A"}}},
                                    {"Events/Handler#1/SourceIds", {{"1", "Events/Source#1"}}},
                                    {"Events/Handler#2", {{"Type", "Tour"}, {"Id", "night"}}},
                                    {"Events/Handler#2/SourceIds", {{"1", "Events/Source#1"}}}};
    Configure(groups);
    providers->idleChange.Notify(0);
    ASSERT_TRUE(log.WaitFor("Error ParkEventSource: EventHandler: not configured"));
    ASSERT_TRUE(log.WaitFor("Debug ParkEventSource: DONE"));
    providers->idleChange.Notify(0);
    test::LetPass(1500ms);
    EXPECT_EQ(log.Count("Error ParkEventSource: EventHandler: not configured"), 1U);
    EXPECT_THAT(providers.Calls(), Not(Contains(HasSubstr("Tour."))));
}

TEST_F(CameraMonitor, AnUnconfiguredHandlerCostsAnAlarmTheHandlersBehindItEachTime) {
    core::IniFile::Groups groups = AlarmWithRelay({{"BankName", "A"}}, {{"BankName", "A"}, {"Index", "-1"}});
    groups["Events/Handler#2"] = {{"Type", "Preset"}, {"Id", "door"}};
    groups["Events/Handler#2/SourceIds"] = {{"1", "Events/Source#1"}};
    Configure(groups);
    for (int round = 0; round < 2; ++round) {
        EXPECT_THAT(
            [this] {
                providers->stateChange.Notify({"A", 0, true});
            },
            FailsWith("EventHandler: not configured"));
    }
    EXPECT_THAT(providers.Calls(), IsEmpty());
}

TEST_F(CameraMonitor, ThreeAlarmHandlersActInTheOrderOfTheirAttachmentAtTheAlarmsLevel) {
    core::IniFile::Groups groups = AlarmWithRelay({{"BankName", "A"}}, {{"BankName", "A"}, {"Mode", "1"}});
    groups["Events/Handler#2"] = {{"Type", "Preset"}, {"Id", "door"}};
    groups["Events/Handler#2/SourceIds"] = {{"1", "Events/Source#1"}};
    groups["Events/Handler#3"] = {{"Type", "Tour"}, {"Id", "night"}};
    groups["Events/Handler#3/SourceIds"] = {{"1", "Events/Source#1"}};
    Configure(groups);
    providers->stateChange.Notify({"A", 0, false});
    EXPECT_THAT(providers.Calls(),
                ElementsAre("RelayV3.SetConfiguration(A,0,0,1,500,500,1)", "RelayV3.Activate(A,0,1)",
                            "PresetsV2.IsAt(door)", "PresetsV2.GoTo(door,1,400)", "Tour.Start(night,400)"));
}

}  // namespace

}  // namespace kelto::halvek
