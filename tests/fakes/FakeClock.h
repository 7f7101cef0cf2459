#pragma once

#include <ctime>
#include <string>

namespace kelto::test {

/**
 * Sets what time() answers, in the whole test program, and the time zone, for the length of a scope.
 *
 * It stands in for the C library's time() at link time; every other clock goes on.
 */
class FakeClock {
public:
    /** @param localTime "2025-03-05 07:08:09" in the zone @param zone a value for TZ, "UTC" or "CET-1CEST" for instance
     */
    explicit FakeClock(const std::string& localTime, const std::string& zone = "UTC");
    ~FakeClock();
    FakeClock(const FakeClock&) = delete;
    FakeClock& operator=(const FakeClock&) = delete;

    /** Sets another local time in the same zone. */
    void Set(const std::string& localTime);
};

}  // namespace kelto::test
