#include "source/AlarmEventSource.h"
#include "source/ParkEventSource.h"
#include "source/SourceFactory.h"
#include "tests/support/Matchers.h"
#include "tests/unit/source/CameraSourceFixture.h"

#include <memory>
#include <string>

namespace kelto::halvek::source {

namespace {

struct AlarmOfTheCamera {
    using Source = AlarmEventSource;
    static constexpr const char* type = "Alarm";
    static constexpr const char* provider = "AlarmV3";
    static constexpr const char* component = "AlarmCommonComponent";
    static auto& ChangesOf(const test::FakeProviders& providers) { return providers->stateChange; }
};

struct RestOfTheCamera {
    using Source = ParkEventSource;
    static constexpr const char* type = "Park";
    static constexpr const char* provider = "MotionState";
    static constexpr const char* component = "MotionStateCommonComponent";
    static auto& ChangesOf(const test::FakeProviders& providers) { return providers->idleChange; }
};

/** What the sources that hear a service of the camera have in common. */
template <typename Kind>
class CameraSource : public CameraSourceFixture<typename Kind::Source> {
protected:
    CameraSource() : CameraSourceFixture<typename Kind::Source>(Kind::type) {}

    size_t CountSubscriptions() const { return Kind::ChangesOf(this->providers).Count(); }
};

using CameraKinds = ::testing::Types<AlarmOfTheCamera, RestOfTheCamera>;
TYPED_TEST_SUITE(CameraSource, CameraKinds);

TYPED_TEST(CameraSource, NeedsAnEnvironment) {
    EXPECT_THAT([] { typename TypeParam::Source(TypeParam::type, nullptr); }, FailsWith("Parameter pEnv was NULL"));
    EXPECT_EQ(this->CountSubscriptions(), 1U);
}

TYPED_TEST(CameraSource, IsMadeByTheFactoryUnderItsTypeName) {
    this->log.Clear();
    const std::unique_ptr<EventSource> made = CreateEventSource(TypeParam::type, &this->env);
    EXPECT_NE(dynamic_cast<typename TypeParam::Source*>(made.get()), nullptr);
    EXPECT_EQ(made->ToString(), std::string("EventSource{") + TypeParam::type + "}");
    EXPECT_TRUE(made->IsConfigured());
    EXPECT_THAT(this->log.Lines(),
                ElementsAre(std::string("Debug halvek: \tCreating EventSource: ") + TypeParam::type));
}

TYPED_TEST(CameraSource, AllShareTheOneClientOfTheEnvironmentsComponent) {
    const typename TypeParam::Source second(TypeParam::type, &this->env);
    EXPECT_EQ(this->providers.CountMade(TypeParam::provider), 1);
    EXPECT_EQ(this->providers.BusOf(TypeParam::provider), this->env.GetMsgBus());
    EXPECT_EQ(this->CountSubscriptions(), 2U);
    EXPECT_NE(this->env.GetComponent(TypeParam::component), nullptr);
}

TYPED_TEST(CameraSource, AClientThatCannotBeMadeFailsTheSource) {
    HalvekEnv other;
    this->providers->onCreate = [](const std::string& provider) {
        throw osa::Exception("no client of %s", provider.c_str());
    };
    EXPECT_THAT([&] { typename TypeParam::Source(TypeParam::type, &other); },
                FailsWith(std::string("no client of ") + TypeParam::provider));
    EXPECT_EQ(other.GetComponent(TypeParam::component), nullptr);
}

}  // namespace

}  // namespace kelto::halvek::source
