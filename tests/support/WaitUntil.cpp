#include "tests/support/WaitUntil.h"

#include <thread>

namespace kelto::test {

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

bool StaysFalse(const std::function<bool()>& condition, std::chrono::milliseconds time) {
    return !WaitUntil(condition, time);
}

}  // namespace kelto::test
