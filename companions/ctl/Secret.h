#pragma once

#include <string>
#include <string_view>

namespace kelto::halvek::ctl {

/** What nobody shall read on a screen. Any thread. */
class Secret {
public:
    /** Whether a key of that name seems to hold a secret. */
    static bool IsName(std::string_view key);

    /** A line of the settings without the secret in it: "Password=***". */
    static std::string Masked(std::string_view line);
};

}  // namespace kelto::halvek::ctl
