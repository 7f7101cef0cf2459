#pragma once

#include <chrono>
#include <functional>

namespace kelto::test {

/** Waits until the condition holds; false if it did not within the time. */
bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = std::chrono::seconds(20));

/**
 * For what must not happen: whether the condition fails to hold all this time, which a test that passes always takes.
 * A shorter time shows less, and never makes a test fail that should pass.
 */
bool StaysFalse(const std::function<bool()>& condition, std::chrono::milliseconds time);

}  // namespace kelto::test
