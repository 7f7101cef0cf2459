#pragma once

#include <cstddef>
#include <string_view>

namespace kelto::companion {

/** One character of a text that is meant to be UTF-8. */
struct Utf8Character {
    /** How many bytes it takes; 1 for a byte that belongs to no character. */
    size_t length;
    /** The code point; meaningless unless it is valid. */
    char32_t code;
    bool isValid;

    /** Whether a terminal would act on it: C0, DEL and C1. */
    bool IsControl() const { return isValid && (code < 0x20 || (code >= 0x7f && code < 0xa0)); }

    /** Whether Unicode keeps it out of all text for ever: XML does not even take it escaped. */
    bool IsNoncharacter() const { return isValid && ((code & 0xfffe) == 0xfffe || (code >= 0xfdd0 && code <= 0xfdef)); }
};

/** Reads the first character of a text that is not empty. Any thread. */
Utf8Character FirstCharacter(std::string_view text);

}  // namespace kelto::companion
