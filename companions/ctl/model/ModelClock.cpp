#include "companions/ctl/model/ModelClock.h"

#include <ctime>
#include <optional>

namespace {

std::optional<time_t> modelTime;

}  // namespace

// Stands before the C library's: the filters look at the clock by themselves, more than once an event. Weak, so that a
// test may have a clock of its own.
extern "C" [[gnu::weak]] time_t time(time_t* result) noexcept {
    timespec real{};
    if (!modelTime) {
        clock_gettime(CLOCK_REALTIME, &real);
    }
    const time_t now = modelTime.value_or(real.tv_sec);
    if (result != nullptr) {
        *result = now;
    }
    return now;
}

namespace kelto::halvek::ctl {

void ModelClock::Set(int64_t now) {
    modelTime = now;
}

}  // namespace kelto::halvek::ctl
