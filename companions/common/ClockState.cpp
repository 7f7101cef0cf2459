#include "companions/common/ClockState.h"

#include "companions/common/UniqueFd.h"

#include <fcntl.h>
#include <sys/timex.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <system_error>

namespace kelto::companion {

namespace {

int64_t Milliseconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

int64_t ClockState::Now() {
    return Milliseconds(CLOCK_REALTIME);
}

int64_t ClockState::SinceBoot() {
    return Milliseconds(CLOCK_BOOTTIME);
}

std::string ClockState::IsoTime(int64_t milliseconds) {
    int64_t seconds = milliseconds / 1000;
    int64_t rest = milliseconds % 1000;
    if (rest < 0) {
        rest += 1000;
        --seconds;
    }
    const auto time = static_cast<time_t>(seconds);
    tm parts{};
    gmtime_r(&time, &parts);
    std::array<char, 64> text{};
    const int length = std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ",
                                     parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min,
                                     parts.tm_sec, static_cast<int>(rest));
    return {text.data(), static_cast<size_t>(length)};
}

bool ClockState::IsSynced() {
    timex state{};
    return adjtimex(&state) >= 0 && (state.status & STA_UNSYNC) == 0;
}

std::string ClockState::BootId() {
    constexpr const char* path = "/proc/sys/kernel/random/boot_id";
    const UniqueFd file(open(path, O_RDONLY | O_CLOEXEC));
    std::array<char, 64> text{};
    const ssize_t length = file.IsOpen() ? read(file.Get(), text.data(), text.size()) : -1;
    if (length < 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    std::string id;
    for (const char character : std::string_view(text.data(), static_cast<size_t>(length))) {
        if (character != '-' && character != '\n') {
            id.push_back(character);
        }
    }
    return id;
}

}  // namespace kelto::companion
