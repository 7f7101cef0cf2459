#pragma once

#include <cstddef>
#include <string_view>

namespace kelto::core {

/**
 * How a text stands in the log, whatever it holds: no text can begin a record of its own or steer a terminal.
 *
 * A line break is followed by four blanks; every other control character but the tab is written as "\x1b". Bytes from
 * 0x80 on, of which UTF-8 is made, stay. Nothing here allocates, so signal handlers may log.
 */
class ControlCharacters {
public:
    /** The text without the line breaks at its end, "\n" or "\r\n"; a carriage return that stands alone is none. */
    static std::string_view TrimLineBreaks(std::string_view text);

    /** How long the text becomes. */
    static size_t EscapedLength(std::string_view text);

    /** Escapes a text where it stands. There must be room for `escapedLength`, which is what EscapedLength said. */
    static void Escape(char* text, size_t length, size_t escapedLength);
};

}  // namespace kelto::core
