#include "env/HalvekEnv.h"
#include "env/HandlerRegistry.h"
#include "event/AlarmEvent.h"
#include "event/ParkEvent.h"
#include "event/TimerEvent.h"
#include "handler/CommandLevel.h"
#include "handler/PresetEventHandler.h"
#include "handler/TourEventHandler.h"
#include "kelto/osa/Exception.h"
#include "tests/fakes/FakeProviders.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"

#include <functional>
#include <memory>
#include <stdexcept>

namespace kelto::halvek::handler {

namespace {

struct PresetKind {
    using Handler = PresetEventHandler;
    static constexpr const char* type = "Preset";
    static constexpr const char* provider = "PresetsV2";
    static constexpr const char* notConfigured = "PresetEventHandler: Error: PresetEventHandler: not configured";
    static constexpr const char* stuck = "PresetEventHandler: Error: com.kelto.Error: 100% stuck";
    static constexpr const char* unknown = "PresetEventHandler: Error, unknown exception caught";
    /** What an action logs at its beginning. */
    static std::vector<std::string> Beginning() { return {"Debug halvek: PresetEventHandler::PerformAction"}; }
    /** The calls of an action. */
    static std::vector<std::string> Calls(const std::string& id) {
        return {"PresetsV2.IsAt(" + id + ")", Command(id, 900)};
    }
    /** The call that moves the head, with a level. */
    static std::string Command(const std::string& id, int level) {
        return "PresetsV2.GoTo(" + id + ",1," + std::to_string(level) + ")";
    }
};

struct TourKind {
    using Handler = TourEventHandler;
    static constexpr const char* type = "Tour";
    static constexpr const char* provider = "Tour";
    static constexpr const char* notConfigured = "TourEventHandler: not configured";
    static constexpr const char* stuck = "com.kelto.Error: 100% stuck";
    static constexpr const char* unknown = "TourEventHandler: Error, unknown exception caught";
    static std::vector<std::string> Beginning() { return {}; }
    static std::vector<std::string> Calls(const std::string& id) { return {Command(id, 900)}; }
    static std::string Command(const std::string& id, int level) {
        return "Tour.Start(" + id + "," + std::to_string(level) + ")";
    }
};

/** What the preset and the tour handler have in common. */
template <typename Kind>
class HeadHandler : public ::testing::Test {
protected:
    /** One action with log and calls begun anew; gives the calls that it made. */
    std::vector<std::string> Act() {
        log.Clear();
        providers.ClearCalls();
        event::TimerEvent event(Event::Properties{});
        handler->PerformAction(event);
        return providers.Calls();
    }

    /** All that an action logs which ends with an error. */
    static std::vector<std::string> BeginningAnd(const std::string& error) {
        std::vector<std::string> lines = Kind::Beginning();
        lines.push_back("Error halvek: " + error);
        return lines;
    }

    /** The last call that the action on an event made. */
    std::string ActOn(Event& event) {
        providers.ClearCalls();
        handler->HandleEvent(event);
        const std::vector<std::string> calls = providers.Calls();
        return calls.empty() ? "no call" : calls.back();
    }

    std::string ActOnPriority(int32_t priority) {
        Event event(Event::Properties{}, priority);
        return ActOn(event);
    }

    test::LogCapture log;
    test::FakeProviders providers;
    HalvekEnv env;
    std::unique_ptr<typename Kind::Handler> handler = std::make_unique<typename Kind::Handler>(env.GetMsgBus());
};

using Kinds = ::testing::Types<PresetKind, TourKind>;
TYPED_TEST_SUITE(HeadHandler, Kinds);

TYPED_TEST(HeadHandler, MakesAClientOfItsOwnOnTheBusAndKeepsItToItsEnd) {
    EXPECT_EQ(this->providers.CountMade(TypeParam::provider), 1);
    EXPECT_EQ(this->providers.BusOf(TypeParam::provider), this->env.GetMsgBus());
    EXPECT_EQ(this->providers.CountDestroyed(TypeParam::provider), 0);
    this->handler.reset();
    EXPECT_EQ(this->providers.CountDestroyed(TypeParam::provider), 1);
}

TYPED_TEST(HeadHandler, IsMadeByTheRegistryUnderItsType) {
    const auto made = HandlerRegistry::Instance().CreateHandlerByName(TypeParam::type, &this->env);
    EXPECT_NE(dynamic_cast<typename TypeParam::Handler*>(made.get()), nullptr);
    EXPECT_EQ(this->providers.BusOf(TypeParam::provider), this->env.GetMsgBus());
}

TYPED_TEST(HeadHandler, ConfiguringRunsTheBaseFirstAndCallsItAPresetOnPurpose) {
    this->log.Clear();
    this->handler->Configure({{"Id", "front door"}, {"EnabledDays", "MTWRFSU"}});
    EXPECT_THAT(
        this->log.Lines(),
        ElementsAre("Debug halvek: \t** Contents of Ini group we're configuring", "Debug halvek: \t** Key\t\tValue",
                    "Debug halvek: \t** EnabledDays\t\tMTWRFSU", "Debug halvek: \t** Id\t\tfront door",
                    "Information halvek: \tFilterChain: Configured day filter",
                    "Information halvek: Configured preset to: \"front door\""));
    EXPECT_TRUE(this->handler->IsConfigured());
    EXPECT_THAT(this->providers.Calls(), IsEmpty());
}

TYPED_TEST(HeadHandler, WithoutAnIdItIsNotConfigured) {
    EXPECT_FALSE(this->handler->IsConfigured());
    this->handler->Configure({});
    EXPECT_FALSE(this->handler->IsConfigured());
    EXPECT_TRUE(this->log.Has("Information halvek: Configured preset to: \"\""));
}

TYPED_TEST(HeadHandler, AnIdThatIsThereButEmptyLeavesItUnconfigured) {
    this->handler->Configure({{"Id", "1"}});
    this->handler->Configure({{"Id", ""}});
    EXPECT_FALSE(this->handler->IsConfigured());
    EXPECT_THAT([this] { this->ActOnPriority(0); }, FailsWith("EventHandler: not configured"));
    EXPECT_THAT(this->providers.Calls(), IsEmpty());
}

TYPED_TEST(HeadHandler, WithoutTheKeyTheIdStaysAsItWas) {
    this->handler->Configure({{"Id", "1"}});
    this->handler->Configure({});
    EXPECT_TRUE(this->log.Has("Information halvek: Configured preset to: \"1\""));
    EXPECT_EQ(this->ActOnPriority(0), TypeParam::Command("1", 900));
}

TYPED_TEST(HeadHandler, AnAlarmGoesOutAtLevel400AndEveryOtherEventAt900) {
    this->handler->Configure({{"Id", "1"}});
    event::AlarmEvent alarm(Event::Properties{});
    event::ParkEvent park(Event::Properties{});
    event::TimerEvent timer(Event::Properties{});
    EXPECT_EQ(this->ActOn(alarm), TypeParam::Command("1", 400));
    EXPECT_EQ(this->ActOn(park), TypeParam::Command("1", 900));
    EXPECT_EQ(this->ActOn(timer), TypeParam::Command("1", 900));
}

TYPED_TEST(HeadHandler, ThePriorityDecidesTheLevelFromOneOn) {
    this->handler->Configure({{"Id", "1"}});
    EXPECT_EQ(this->ActOnPriority(-5), TypeParam::Command("1", 900));
    EXPECT_EQ(this->ActOnPriority(INT32_MIN), TypeParam::Command("1", 900));
    EXPECT_EQ(this->ActOnPriority(0), TypeParam::Command("1", 900));
    EXPECT_EQ(this->ActOnPriority(1), TypeParam::Command("1", 400));
    EXPECT_EQ(this->ActOnPriority(7), TypeParam::Command("1", 400));
    EXPECT_EQ(this->ActOnPriority(INT32_MAX), TypeParam::Command("1", 400));
}

TYPED_TEST(HeadHandler, AfterAFailureTheNextEventTriesAgain) {
    this->handler->Configure({{"Id", "1"}});
    this->providers->onCall = [](const std::string&) { throw osa::Exception("gone"); };
    EXPECT_NO_THROW(this->ActOnPriority(0));
    this->providers->onCall = nullptr;
    EXPECT_EQ(this->ActOnPriority(0), TypeParam::Command("1", 900));
}

TYPED_TEST(HeadHandler, AnActionReachedUnconfiguredLogsTheErrorInItsOwnFormat) {
    EXPECT_THAT(this->Act(), IsEmpty());
    EXPECT_THAT(this->log.Lines(), ElementsAre(std::string("Error halvek: ") + TypeParam::notConfigured));
}

TYPED_TEST(HeadHandler, AnErrorOfTheServiceIsLoggedInItsOwnFormatAndNothingFollowsTheCall) {
    this->handler->Configure({{"Id", "door"}});
    for (const std::string& failing : TypeParam::Calls("door")) {
        this->providers->onCall = [&](const std::string& call) {
            if (call == failing) {
                throw osa::Exception("com.kelto.Error: 100%% stuck");
            }
        };
        EXPECT_EQ(this->Act().back(), failing);
        EXPECT_EQ(this->log.Lines(), this->BeginningAnd(TypeParam::stuck));
    }
}

TYPED_TEST(HeadHandler, AnythingElseThrownIsLoggedAsUnknown) {
    this->handler->Configure({{"Id", "door"}});
    const std::vector<std::function<void()>> failures = {[] { throw std::runtime_error("library"); }, [] { throw 42; }};
    for (const auto& failure : failures) {
        this->providers->onCall = [&](const std::string&) { failure(); };
        this->Act();
        EXPECT_EQ(this->log.Lines(), this->BeginningAnd(TypeParam::unknown));
    }
}

class PresetEventHandlerTest : public HeadHandler<PresetKind> {};

TEST_F(PresetEventHandlerTest, AsksWhereTheHeadStandsAndMovesItAtFullSpeed) {
    handler->Configure({{"Id", "door"}});
    providers->position = "window";
    EXPECT_THAT(Act(), ElementsAre("PresetsV2.IsAt(door)", "PresetsV2.GoTo(door,1,900)"));
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: PresetEventHandler::PerformAction"));
}

TEST_F(PresetEventHandlerTest, AHeadThatStandsThereAlreadyIsNotMoved) {
    handler->Configure({{"Id", "door"}});
    providers->position = "door";
    EXPECT_THAT(Act(), ElementsAre("PresetsV2.IsAt(door)"));
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: PresetEventHandler::PerformAction"));
}

class TourEventHandlerTest : public HeadHandler<TourKind> {};

TEST_F(TourEventHandlerTest, StartsTheTourEachTimeWithoutAskingWhetherItRuns) {
    handler->Configure({{"Id", "night"}});
    EXPECT_THAT(Act(), ElementsAre("Tour.Start(night,900)"));
    EXPECT_THAT(Act(), ElementsAre("Tour.Start(night,900)"));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

}  // namespace

}  // namespace kelto::halvek::handler
