#include "env/HalvekEnv.h"
#include "tests/support/Matchers.h"
#include "tests/support/ProcessState.h"

namespace kelto::halvek {

namespace {

class Component : public HalvekEnv::IHalvekComponent {
public:
    explicit Component(int& destroyedCount) : destroyed(destroyedCount) {}
    ~Component() override { ++destroyed; }

private:
    int& destroyed;
};

class HalvekEnvTest : public ::testing::Test {
protected:
    /** A bus that has been started has a thread that listens, or looks for it. */
    static bool IsBusStarted() { return test::HasThread("MsgBusListener"); }

    int destroyed = 0;
    Component first{destroyed};
    Component second{destroyed};
    HalvekEnv env;
};

TEST_F(HalvekEnvTest, HasOneBusThatIsNotStartedYet) {
    ASSERT_NE(env.GetMsgBus(), nullptr);
    EXPECT_EQ(env.GetMsgBus(), env.GetMsgBus());
    EXPECT_FALSE(IsBusStarted());
}

TEST_F(HalvekEnvTest, StartsTheBusAndMayDoSoAgain) {
    const msgbus::IMsgBus* const bus = env.GetMsgBus();
    env.StartMsgBus();
    EXPECT_TRUE(IsBusStarted());
    env.StartMsgBus();
    EXPECT_TRUE(IsBusStarted());
    EXPECT_EQ(env.GetMsgBus(), bus);
}

TEST_F(HalvekEnvTest, FindsAComponentByItsId) {
    env.RegisterComponent("AlarmCommonComponent", &first);
    env.RegisterComponent("MotionStateCommonComponent", &second);
    EXPECT_EQ(env.GetComponent("AlarmCommonComponent"), &first);
    EXPECT_EQ(env.GetComponent("MotionStateCommonComponent"), &second);
}

TEST_F(HalvekEnvTest, AnUnknownIdIsNullAndAddsNoEntry) {
    EXPECT_EQ(env.GetComponent("AlarmCommonComponent"), nullptr);
    EXPECT_EQ(env.GetComponent("AlarmCommonComponent"), nullptr);
    EXPECT_NO_THROW(env.RegisterComponent("AlarmCommonComponent", &first));
    EXPECT_EQ(env.GetComponent("alarmcommoncomponent"), nullptr);
}

TEST_F(HalvekEnvTest, ATakenIdIsRefusedAndTheFirstComponentStays) {
    env.RegisterComponent("AlarmCommonComponent", &first);
    EXPECT_THAT([this] { env.RegisterComponent("AlarmCommonComponent", &second); },
                FailsWith("ComponentId AlarmCommonComponent already taken"));
    EXPECT_EQ(env.GetComponent("AlarmCommonComponent"), &first);
}

TEST_F(HalvekEnvTest, LeavesItsComponentsAliveWhenItGoes) {
    {
        HalvekEnv shortLived;
        shortLived.RegisterComponent("AlarmCommonComponent", &first);
    }
    EXPECT_EQ(destroyed, 0);
}

}  // namespace

}  // namespace kelto::halvek
