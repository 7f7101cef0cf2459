#include "kelto/osa/Exception.h"

#include <cstdarg>
#include <cstdio>
#include <string>

namespace kelto::osa {

Exception::Exception(const char* format, ...) : std::runtime_error("") {
    va_list arguments;
    va_start(arguments, format);
    va_list measured;
    va_copy(measured, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    va_end(arguments);
    static_cast<std::runtime_error&>(*this) = std::runtime_error(text);
}

}  // namespace kelto::osa
