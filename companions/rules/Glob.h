#pragma once

#include <string_view>

namespace kelto::companion::rules {

/**
 * Patterns of texts: "*" is any text, "?" one character, "[a-z]" one of these and "[!a-z]" none of them. A "[" without
 * its "]" is an ordinary character. Any thread.
 */
class Glob {
public:
    /** Whether the whole text, which is UTF-8, is one of the pattern. Takes no longer than their lengths multiplied. */
    static bool Matches(std::string_view pattern, std::string_view text);
};

}  // namespace kelto::companion::rules
