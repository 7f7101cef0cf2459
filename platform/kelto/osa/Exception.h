#pragma once

#include <stdexcept>

namespace kelto::osa {

/**
 * The failure that every platform library and the daemon throw.
 *
 * Copies share the text and never throw. Any thread may throw and catch it.
 */
class Exception : public std::runtime_error {
public:
    /** Formats the text as printf does. Text that comes from outside belongs into an argument, never into the format.
     */
    explicit Exception(const char* format, ...) __attribute__((format(printf, 2, 3)));
};

}  // namespace kelto::osa
