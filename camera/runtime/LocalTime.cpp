#include "camera/runtime/LocalTime.h"

#include <array>
#include <cstdio>

namespace kelto::vcam {

std::string FormatLocalTime(const timespec& time) {
    tm local{};
    localtime_r(&time.tv_sec, &local);
    std::array<char, 64> text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), "%02d:%02d:%02d.%03ld", local.tm_hour, local.tm_min,
                                    local.tm_sec, static_cast<long>(time.tv_nsec / 1'000'000)));
    return text.data();
}

}  // namespace kelto::vcam
