#include "companions/outbox/HeldTargets.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

namespace kelto::halvek::outbox {
namespace {

class HeldTargetsTest : public testing::Test {
protected:
    ~HeldTargetsTest() override { std::filesystem::remove_all(folder); }

    /** As the next process finds them. */
    HeldTargets Next() const {
        HeldTargets held({folder + "/best/held", folder + "/other"});
        held.Load();
        return held;
    }

    std::string folder = [] {
        std::string name = "/tmp/held-XXXXXX";
        return std::string(mkdtemp(name.data()));
    }();
};

TEST_F(HeldTargetsTest, NothingIsHeldAtFirst) {
    EXPECT_FALSE(Next().IsAllHeld());
    EXPECT_TRUE(Next().Targets().empty());
}

TEST_F(HeldTargetsTest, WhatIsHeldStaysSoUntilItIsReleased) {
    std::filesystem::create_directory(folder + "/best");
    HeldTargets held = Next();
    held.HoldAll();
    held.Hold("a\nb");
    EXPECT_TRUE(Next().IsAllHeld());
    EXPECT_TRUE(Next().IsHeld("a\nb"));
    EXPECT_FALSE(std::filesystem::exists(folder + "/other"));
    held.Release("a\nb");
    EXPECT_TRUE(Next().IsAllHeld());
    EXPECT_FALSE(Next().IsHeld("a\nb"));
    held.ReleaseAll();
    EXPECT_FALSE(Next().IsAllHeld());
    EXPECT_TRUE(std::filesystem::is_empty(folder + "/best"));
}

TEST_F(HeldTargetsTest, TheNextPlaceDoesWhereTheBestIsNotWritable) {
    HeldTargets held = Next();
    held.Hold("a");
    EXPECT_TRUE(Next().IsHeld("a"));
    EXPECT_TRUE(std::filesystem::exists(folder + "/other"));
}

TEST_F(HeldTargetsTest, RubbishHoldsNothing) {
    std::ofstream(folder + "/other") << "all";
    EXPECT_FALSE(Next().IsAllHeld());
}

}  // namespace
}  // namespace kelto::halvek::outbox
