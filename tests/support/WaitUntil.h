#pragma once

#include <chrono>
#include <functional>

namespace kelto::test {

/** Waits until the condition holds; false if it did not within the time. */
bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = std::chrono::seconds(20));

/** How long something takes. */
template <typename Deed>
std::chrono::milliseconds TimeOf(const Deed& deed) {
    const auto begin = std::chrono::steady_clock::now();
    deed();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
}

/**
 * For what must not happen: whether the condition fails to hold all this time, which a test that passes always takes.
 * A shorter time shows less, and never makes a test fail that should pass.
 */
bool StaysFalse(const std::function<bool()>& condition, std::chrono::milliseconds time);

}  // namespace kelto::test
