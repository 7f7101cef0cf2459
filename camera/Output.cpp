#include "camera/Output.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>

namespace kelto::vcam {

namespace {

bool IsControl(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte < 0x20 || byte == 0x7f;
}

std::string Format(const char* format, va_list arguments) {
    std::array<char, 1024> text{};
    static_cast<void>(std::vsnprintf(text.data(), text.size(), format, arguments));
    std::string line(text.data());
    std::replace_if(line.begin(), line.end(), IsControl, '?');
    return line;
}

}  // namespace

void Say(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string line = Format(format, arguments);
    va_end(arguments);

    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    std::printf("%02d:%02d:%02d.%03ld %s\n", local.tm_hour, local.tm_min, local.tm_sec, now.tv_nsec / 1'000'000,
                line.c_str());
    std::fflush(stdout);
}

void Complain(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string line = Format(format, arguments);
    va_end(arguments);
    std::fprintf(stderr, "kelto-vcam: %s\n", line.c_str());
}

}  // namespace kelto::vcam
