#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelto::halvek::ctl {

/** What somebody may have meant who wrote something else. Any thread. */
class Nearest {
public:
    /** The candidate that differs least; nothing if none is near, or the word is one of them. */
    static std::optional<std::string> Find(std::string_view word, const std::vector<std::string>& candidates);

    /** How many letters have to be put in, left out, replaced or swapped with their neighbours, upper and lower case
     * being the same. */
    static size_t Distance(std::string_view one, std::string_view other);

    static bool IsEqualButForCase(std::string_view one, std::string_view other);
};

}  // namespace kelto::halvek::ctl
