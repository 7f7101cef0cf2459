#include "camera/runtime/Output.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace kelto::vcam {

void Say(const char* format, ...) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    std::printf("%02d:%02d:%02d.%03ld ", local.tm_hour, local.tm_min, local.tm_sec, now.tv_nsec / 1'000'000);

    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    std::putchar('\n');
    std::fflush(stdout);
}

void Complain(const char* format, ...) {
    std::fputs("kelto-vcam: ", stderr);
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    std::fputc('\n', stderr);
}

}  // namespace kelto::vcam
