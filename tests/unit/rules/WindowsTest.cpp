#include "companions/rules/Windows.h"

#include <gmock/gmock.h>

#include <string>

namespace kelto::companion::rules {

namespace {

using Milliseconds = Windows::Milliseconds;

class WindowsTest : public ::testing::Test {
protected:
    WindowsTest() {
        rule.kind = Rule::Kind::Unless;
        rule.span = Milliseconds(1000);
    }

    Window& Open(const std::string& key, int64_t at, const std::string& text = "") {
        Window& window = windows.FindOrMake(rule, key);
        windows.MakeYoungest(window);
        window.openedAt = Milliseconds(at);
        window.first.chain = text;
        windows.Settle(window, Milliseconds(at));
        return window;
    }

    /** Leaves a window that holds nothing but a number. */
    void MakeDormant(const std::string& key, int64_t at) {
        Window& window = windows.FindOrMake(rule, key);
        window.suppressed = 1;
        windows.Settle(window, Milliseconds(at));
    }

    Rule rule;
    Windows windows;
};

TEST_F(WindowsTest, TheFirstEndComesFirstAndThatOfTheOlderOfTwo) {
    Open("b", 5);
    Open("a", 5);
    Open("c", 2);
    EXPECT_EQ(windows.NextEnd(), Milliseconds(1002));
    EXPECT_EQ(windows.NextOver(Milliseconds(1001)), nullptr);
    Window* over = windows.NextOver(Milliseconds(2000));
    ASSERT_EQ(over->key, "c");
    over->openedAt.reset();
    windows.Settle(*over, Milliseconds(1002));
    EXPECT_EQ(windows.NextOver(Milliseconds(2000))->key, "b");
    EXPECT_EQ(windows.OpenCount(), 2);
}

TEST_F(WindowsTest, AWindowWithNothingInItIsGone) {
    Window& window = Open("a", 0);
    window.openedAt.reset();
    windows.Settle(window, Milliseconds(1));
    EXPECT_EQ(windows.Find(rule, "a"), nullptr);
    EXPECT_EQ(windows.NextEnd(), std::nullopt);
}

TEST_F(WindowsTest, AWindowThatHoldsANumberOnlyIsNotOpenAndGivesWayFirst) {
    Open("open", 0);
    MakeDormant("number", 1);
    EXPECT_EQ(windows.OpenCount(), 1);
    for (size_t count = 0; count < Windows::mostWindows - 1; ++count) {
        Open(std::to_string(count), 2);
    }
    EXPECT_EQ(windows.Find(rule, "number"), nullptr);
    EXPECT_NE(windows.Find(rule, "open"), nullptr);
    EXPECT_EQ(windows.GivenWay(), 1);
}

TEST_F(WindowsTest, OneThatIsOpenedAnewIsTheYoungest) {
    for (size_t count = 0; count < Windows::mostWindows; ++count) {
        Open(std::to_string(count), 0);
    }
    Open("0", 1);
    Open("more", 2);
    EXPECT_NE(windows.Find(rule, "0"), nullptr);
    EXPECT_EQ(windows.Find(rule, "1"), nullptr);
}

TEST_F(WindowsTest, TextsTakeAMebibyteAtMost) {
    const std::string text(Windows::mostBytes / 4, 'x');
    Open("a", 0, text);
    Open("b", 0, text);
    Open("c", 0, text);
    EXPECT_EQ(windows.OpenCount(), 3);
    Open("d", 0, text);
    EXPECT_EQ(windows.OpenCount(), 3);
    EXPECT_EQ(windows.Find(rule, "a"), nullptr);
    // The largest of all stays alone.
    Open("e", 0, std::string(2 * Windows::mostBytes, 'x'));
    EXPECT_EQ(windows.OpenCount(), 1);
    EXPECT_NE(windows.Find(rule, "e"), nullptr);
    Open("f", 0);
    EXPECT_EQ(windows.Find(rule, "e"), nullptr);
}

TEST_F(WindowsTest, WindowsOfRulesThatAreGoneAreGone) {
    Rule other = rule;
    Open("a", 0);
    Window& theirs = windows.FindOrMake(other, "a");
    theirs.openedAt = Milliseconds(0);
    windows.Settle(theirs, Milliseconds(0));
    windows.RemoveIf([&](const Rule& one) { return &one == &other; });
    EXPECT_NE(windows.Find(rule, "a"), nullptr);
    EXPECT_EQ(windows.Find(other, "a"), nullptr);
}

}  // namespace

}  // namespace kelto::companion::rules
