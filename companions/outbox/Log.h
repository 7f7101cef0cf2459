#pragma once

#include <string_view>

namespace kelto::halvek::outbox {

/** What the service says, on standard error: one line each, in which no other begins. Any thread. */
class Log {
public:
    static void Error(std::string_view text);
    static void Warning(std::string_view text);
    static void Information(std::string_view text);

    /** The text without control characters: each is a "?". */
    static void Say(std::string_view text);
};

}  // namespace kelto::halvek::outbox
