#include "companions/mqtt/Identity.h"

#include "companions/common/ClockState.h"

#include <unistd.h>

#include <array>
#include <ctime>

namespace kelto::halvek::mqtt {

Identity Identity::Make() {
    std::array<char, 256> host{};
    static_cast<void>(gethostname(host.data(), host.size() - 1));
    return {companion::ClockState::BootId(), companion::ClockState::IsoTime(companion::ClockState::Now()), host.data()};
}

uint64_t Identity::FirstNumber() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

}  // namespace kelto::halvek::mqtt
