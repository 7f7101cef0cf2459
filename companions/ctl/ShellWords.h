#pragma once

#include <string_view>

namespace kelto::halvek::ctl {

/** What a shell makes of values that the daemon puts on its command lines unquoted. Any thread. */
class ShellWords {
public:
    /** Whether a shell takes the text as it stands: one word, without a character that means something to it. */
    static bool IsPlain(std::string_view text) {
        constexpr std::string_view special = " \t\n\r\"'`$&|;<>()*?[]{}\\#";
        return text.find_first_of(special) == std::string_view::npos && !text.starts_with('~');
    }
};

}  // namespace kelto::halvek::ctl
