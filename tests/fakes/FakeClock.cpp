#include "tests/fakes/FakeClock.h"

#include <atomic>
#include <cstdlib>
#include <stdexcept>

namespace {

constexpr time_t realTime = -1;
std::atomic<time_t> fakeNow = realTime;

}  // namespace

extern "C" time_t time(time_t* result) noexcept {
    time_t now = fakeNow;
    if (now == realTime) {
        timespec real{};
        clock_gettime(CLOCK_REALTIME, &real);
        now = real.tv_sec;
    }
    if (result != nullptr) {
        *result = now;
    }
    return now;
}

namespace kelto::test {

FakeClock::FakeClock(const std::string& localTime, const std::string& zone) {
    setenv("TZ", zone.c_str(), 1);
    tzset();
    Set(localTime);
}

FakeClock::~FakeClock() {
    unsetenv("TZ");
    tzset();
    fakeNow = realTime;
}

void FakeClock::Set(const std::string& localTime) {
    tm local{};
    if (strptime(localTime.c_str(), "%Y-%m-%d %H:%M:%S", &local) == nullptr) {
        throw std::invalid_argument("not a local time: " + localTime);
    }
    local.tm_isdst = -1;
    fakeNow = mktime(&local);
}

}  // namespace kelto::test
