#include "kelto/core/UtcOffset.h"

#include <atomic>
#include <cstdint>
#include <ctime>

namespace kelto::core {

namespace {

constexpr int64_t quarterSeconds = 900;

std::atomic<int64_t> lastQuarter = -1;
std::atomic<long> offset = 0;

}  // namespace

void UtcOffset::Refresh() {
    const time_t now = time(nullptr);
    const int64_t quarter = int64_t{now} / quarterSeconds;
    if (quarter == lastQuarter.load(std::memory_order_relaxed)) {
        return;
    }
    tm local{};
    localtime_r(&now, &local);
    offset.store(local.tm_gmtoff, std::memory_order_relaxed);
    lastQuarter.store(quarter, std::memory_order_relaxed);
}

long UtcOffset::Get() {
    return offset.load(std::memory_order_relaxed);
}

}  // namespace kelto::core
