#include "env/HalvekEnv.h"
#include "env/HandlerRegistry.h"
#include "handler/EventHandler.h"
#include "handler/ExternEventHandler.h"
#include "tests/fakes/FailingAllocation.h"
#include "tests/fakes/RecordingHandler.h"
#include "tests/support/Matchers.h"

namespace kelto::halvek {

namespace {

constexpr int32_t testKind = 99;
HalvekEnv* givenEnv = nullptr;

std::unique_ptr<EventHandler> CreateRecording(HalvekEnv* env) {
    givenEnv = env;
    return std::make_unique<test::RecordingHandler>();
}

std::unique_ptr<EventHandler> CreateNothing(HalvekEnv*) {
    return nullptr;
}

constexpr HandlerRegistration recording{"Recording", CreateRecording, 0};
constexpr HandlerRegistration nothing{"Nothing", CreateNothing, 1};
constexpr HandlerRegistration secondRecording{"Recording", CreateNothing, 1};

// Declared from the last to the first, so that only their priorities can bring them into their order.
constexpr HandlerRegistration registeredLast{"TestLast", CreateNothing, testKind};
constexpr HandlerRegistration registeredBetween{"TestBetween", CreateNothing, testKind};
constexpr HandlerRegistration registeredFirst{"TestFirst", CreateNothing, testKind};
[[gnu::init_priority(RegisterRelay)]] const HandlerRegistrar lastRegistrar(&registeredLast);
[[gnu::init_priority(RegisterExtern)]] const HandlerRegistrar betweenRegistrar(&registeredBetween);
[[gnu::init_priority(RegisterTour)]] const HandlerRegistrar firstRegistrar(&registeredFirst);

std::list<std::string> NamesOfKind(const HandlerRegistry& registry, int32_t kind) {
    std::list<std::string> names;
    registry.GetNamesOfKind(kind, names);
    return names;
}

TEST(HandlerRegistry, TheListRunsInTheReverseOfTheRegistration) {
    HandlerRegistry registry;
    registry.Register(&secondRecording);
    registry.Register(&recording);
    registry.Register(&nothing);
    EXPECT_THAT(NamesOfKind(registry, 1), ElementsAre("Nothing", "Recording"));
    EXPECT_THAT(NamesOfKind(registry, 0), ElementsAre("Recording"));
}

TEST(HandlerRegistry, RecordsOfAsManyTypesAsThereAreTakeNoMemory) {
    HandlerRegistry registry;
    const test::FailingAllocation failing(0);
    for (int types = 0; types < 32; ++types) {
        registry.Register(&recording);
    }
    EXPECT_FALSE(test::FailingAllocation::HasFailed());
}

TEST(HandlerRegistry, NamesAreAppendedToWhatIsThere) {
    HandlerRegistry registry;
    registry.Register(&nothing);
    std::list<std::string> names{"before"};
    registry.GetNamesOfKind(1, names);
    EXPECT_THAT(names, ElementsAre("before", "Nothing"));
    registry.GetNamesOfKind(2, names);
    EXPECT_THAT(names, ElementsAre("before", "Nothing"));
}

TEST(HandlerRegistry, TheFirstRecordOfANameInTheListIsTaken) {
    HandlerRegistry registry;
    registry.Register(&recording);
    EXPECT_NE(registry.CreateHandlerByName("Recording", nullptr), nullptr);
    registry.Register(&secondRecording);
    EXPECT_EQ(registry.CreateHandlerByName("Recording", nullptr), nullptr);
}

TEST(HandlerRegistry, NamesAreComparedExactly) {
    HandlerRegistry registry;
    registry.Register(&recording);
    for (const char* name : {"recording", "Record", "Recording ", ""}) {
        EXPECT_EQ(registry.CreateHandlerByName(name, nullptr), nullptr) << name;
    }
}

TEST(HandlerRegistry, AnEmptyRegistryKnowsNothing) {
    const HandlerRegistry registry;
    EXPECT_EQ(registry.CreateHandlerByName("Extern", nullptr), nullptr);
    EXPECT_THAT(NamesOfKind(registry, 1), IsEmpty());
}

TEST(HandlerRegistry, TheCreatorIsGivenTheEnvironmentAndMakesANewHandlerEachTime) {
    HandlerRegistry registry;
    registry.Register(&recording);
    HalvekEnv env;
    const std::unique_ptr<EventHandler> one = registry.CreateHandlerByName("Recording", &env);
    const std::unique_ptr<EventHandler> two = registry.CreateHandlerByName("Recording", &env);
    EXPECT_EQ(givenEnv, &env);
    EXPECT_NE(one, two);
}

TEST(HandlerRegistry, ThereIsOneOfTheProcess) {
    EXPECT_EQ(&HandlerRegistry::Instance(), &HandlerRegistry::Instance());
}

TEST(HandlerRegistry, ExternIsTheOnlyAlwaysOnTypeOfTheProcess) {
    EXPECT_THAT(NamesOfKind(HandlerRegistry::Instance(), 1), ElementsAre("Extern"));
    const std::unique_ptr<EventHandler> handler = HandlerRegistry::Instance().CreateHandlerByName("Extern", nullptr);
    EXPECT_NE(dynamic_cast<handler::ExternEventHandler*>(handler.get()), nullptr);
    EXPECT_TRUE(handler->IsConfigured());
}

TEST(HandlerRegistry, RecordsRegisterByTheirPriorityWhateverTheOrderOfTheirDefinition) {
    EXPECT_THAT(NamesOfKind(HandlerRegistry::Instance(), testKind),
                ElementsAre("TestLast", "TestBetween", "TestFirst"));
}

TEST(HandlerRegistry, ThePrioritiesOfTheTypesAreInTheirOrder) {
    EXPECT_THAT((std::vector<int>{RegisterTour, RegisterFolder, RegisterFtp, RegisterPreset, RegisterExtern,
                                  RegisterEmail, RegisterRelay}),
                ElementsAre(1001, 1002, 1003, 1004, 1005, 1006, 1007));
}

}  // namespace

}  // namespace kelto::halvek
