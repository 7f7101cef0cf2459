#include "env/Guarded.h"

#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <utility>

namespace kelto::halvek {

namespace {

using namespace std::chrono_literals;

/** Does something whenever it is copied or given another value. */
class Watched {
public:
    explicit Watched(std::function<void()> whenTouched = [] {}) : touch(std::move(whenTouched)) {}
    ~Watched() = default;
    Watched(const Watched& other) : touch(other.touch) { touch(); }
    Watched& operator=(const Watched& other) {
        touch();
        touch = other.touch;
        return *this;
    }

private:
    std::function<void()> touch;
};

class GuardedTest : public ::testing::Test {
protected:
    /** The value waits when it is touched for the first time from now on, until Release. */
    void Hold() {
        value.Store(Watched([this] {
            if (std::exchange(waits, false)) {
                held.set_value();
                released.get_future().wait();
            }
        }));
        waits = true;
    }

    /** Whether the deed has to wait while the first one is at the value. */
    bool IsKeptOut(const std::function<void()>& first, const std::function<void()>& second) {
        Hold();
        const std::future<void> inside = std::async(std::launch::async, first);
        held.get_future().wait();
        const std::future<void> outside = std::async(std::launch::async, second);
        const bool keptOut = outside.wait_for(100ms) == std::future_status::timeout;
        released.set_value();
        return keptOut;
    }

    const std::function<void()> copy = [this] { value.Copy(); };
    const std::function<void()> store = [this] { value.Store(Watched()); };

private:
    Guarded<Watched> value;
    bool waits = false;
    std::promise<void> held;
    std::promise<void> released;
};

TEST_F(GuardedTest, ACopyKeepsAStoreOut) {
    EXPECT_TRUE(IsKeptOut(copy, store));
}

TEST_F(GuardedTest, ACopyKeepsACopyOut) {
    EXPECT_TRUE(IsKeptOut(copy, copy));
}

TEST_F(GuardedTest, AStoreKeepsACopyOut) {
    EXPECT_TRUE(IsKeptOut(store, copy));
}

TEST(Guarded, GivesBackWhatWasStored) {
    Guarded<std::string> value;
    EXPECT_EQ(value.Copy(), "");
    value.Store("kept");
    EXPECT_EQ(value.Copy(), "kept");
}

}  // namespace

}  // namespace kelto::halvek
