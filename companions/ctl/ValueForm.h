#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kelto::halvek::ctl {

/** What somebody has written around the value that he meant. Any thread. */
class ValueForm {
public:
    /** Whether it stands in quotes, which the store knows not. */
    static bool IsQuoted(std::string_view value);

    /** Where a comment seems to begin behind the value: a "#" or ";" behind a blank; npos without one. */
    static size_t CommentAt(std::string_view value);

    /** Without quotes and comment. */
    static std::string Bare(std::string_view value);

    /** The integer that was probably meant: without a unit, a "+", a fraction of zeros; times converted to `unit`, "s"
     * or "ms". */
    static std::optional<std::string> Number(std::string_view value, std::string_view unit);

    /** The size that was probably meant, as the daemon reads it: 10M of "10 MB". */
    static std::optional<std::string> Size(std::string_view value);

    /** "true" or "false", where the word says so in another way. */
    static std::optional<std::string> Boolean(std::string_view value);
};

}  // namespace kelto::halvek::ctl
