#pragma once

#include <chrono>
#include <functional>

namespace kelto::test {

/** Waits until the condition holds; false if it did not within the time. */
bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = std::chrono::seconds(20));

}  // namespace kelto::test
