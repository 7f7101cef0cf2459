#pragma once

#include <stdexcept>
#include <string>

namespace kelto::companion {

/** An event that cannot be posted as it is: the text says why. Nothing has been written. */
class PostRefusal : public std::invalid_argument {
public:
    enum class Reason {
        /** A type, key or block that the daemon would read as something else. */
        Grammar,
        /** A block that would not be written in one piece. */
        Size,
    };

    PostRefusal(Reason why, const std::string& text) : std::invalid_argument(text), reason(why) {}

    Reason GetReason() const { return reason; }

private:
    Reason reason;
};

}  // namespace kelto::companion
