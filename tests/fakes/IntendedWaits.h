#pragma once

#include <chrono>
#include <functional>
#include <vector>

namespace kelto::test {

/**
 * For how long threads mean to wait for conditions, noted over the length of a scope; one at a time. It takes no
 * memory, so that it may stand beside allocations that fail. The waits themselves are the real ones.
 */
class IntendedWaits {
public:
    IntendedWaits();
    ~IntendedWaits();
    IntendedWaits(const IntendedWaits&) = delete;
    IntendedWaits& operator=(const IntendedWaits&) = delete;

    /** In their order; one that goes on after a vain awakening is noted once. */
    std::vector<std::chrono::microseconds> Get() const;

    /** False if so many have not begun in time. */
    bool WaitForCount(size_t count) const;
};

/**
 * Expects the first waits of some rounds to be these. A thread that the machine holds up between its look at the clock
 * and the wait means to wait for less, which happens now and then; so none may be longer, and each must once have been
 * whole, to the millisecond. A round lasts until it has had so many waits.
 */
void ExpectWaits(const std::vector<std::chrono::milliseconds>& expected,
                 const std::function<void(const IntendedWaits&)>& round);

}  // namespace kelto::test
