#include "kelto/core/UtcOffset.h"

#include <atomic>
#include <cstdint>
#include <ctime>

namespace kelto::core {

namespace {

constexpr int64_t quarterSeconds = 900;

std::atomic<int64_t> lastQuarter = -1;
std::atomic<long> offset = 0;

int64_t QuarterOf(time_t now) {
    return int64_t{now} / quarterSeconds;
}

}  // namespace

void UtcOffset::Refresh() {
    if (QuarterOf(time(nullptr)) != lastQuarter.load(std::memory_order_relaxed)) {
        Renew();
    }
}

void UtcOffset::Renew() {
    const time_t now = time(nullptr);
    tm local{};
    // localtime_r alone keeps to the zone that it has seen first.
    tzset();
    localtime_r(&now, &local);
    offset.store(local.tm_gmtoff, std::memory_order_relaxed);
    lastQuarter.store(QuarterOf(now), std::memory_order_relaxed);
}

long UtcOffset::Get() {
    return offset.load(std::memory_order_relaxed);
}

}  // namespace kelto::core
