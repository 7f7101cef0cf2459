#include "camera/runtime/Output.h"

#include "camera/runtime/LocalTime.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace kelto::vcam {

void Say(const char* format, ...) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::printf("%s ", FormatLocalTime(now).c_str());

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
