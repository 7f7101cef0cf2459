#include "camera/runtime/Output.h"

#include "camera/runtime/LocalTime.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>
#include <utility>

namespace kelto::vcam {

namespace {

LineListener::Function& Listener() {
    static LineListener::Function listener;
    return listener;
}

std::string Format(const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(static_cast<size_t>(length), '\0');
    // The terminating null byte goes where the string keeps its own.
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

}  // namespace

LineListener::LineListener(Function hear) {
    Listener() = std::move(hear);
}

LineListener::~LineListener() {
    Listener() = nullptr;
}

void Say(const char* format, ...) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);

    va_list arguments;
    va_start(arguments, format);
    const std::string line = Format(format, arguments);
    va_end(arguments);
    std::printf("%s %s\n", FormatLocalTime(now).c_str(), line.c_str());
    std::fflush(stdout);
    if (Listener()) {
        Listener()(line.c_str());
    }
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
