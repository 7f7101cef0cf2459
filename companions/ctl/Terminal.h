#pragma once

#include <string>
#include <string_view>

namespace kelto::halvek::ctl {

/** How texts of others stand in what people read. Any thread. */
class Terminal {
public:
    enum class Colour { Red, Yellow, Green, Cyan, Bold, Faint };

    /** The text with control characters, noncharacters, and bytes that are no UTF-8, written as "\x1b": nothing in it
     * steers a terminal, begins a line of its own or is more than XML takes. */
    static std::string Escape(std::string_view text);

    /** The value of a key as it may be shown: "***" for a password, else escaped. */
    static std::string ShownValue(std::string_view key, std::string_view value);

    /** Whether a key holds a secret, in whatever case it is written. */
    static bool IsSecret(std::string_view key);

    /** The text in a colour if standard output is a terminal and nobody has set NO_COLOR; else as it is. */
    static std::string Coloured(Colour colour, std::string_view text);

    /** Whether Coloured colours. */
    static bool HasColours();

    /** Writes "halvekctl: " and the text, escaped, as one line on standard error. What cannot be written is lost. */
    static void Complain(std::string_view text);
};

}  // namespace kelto::halvek::ctl
