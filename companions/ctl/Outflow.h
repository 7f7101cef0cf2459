#pragma once

#include <string_view>

namespace kelto::halvek::ctl {

/** Standard output for verbs that go on: each piece is written when it comes. */
class Outflow {
public:
    /** Writes all of it and waits as long as that takes. Throws Failure if standard output is closed or full. */
    static void Write(std::string_view text);
};

}  // namespace kelto::halvek::ctl
