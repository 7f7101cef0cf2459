#pragma once

#include "companions/common/ReceivedEvent.h"

#include <string>
#include <string_view>

namespace kelto::companion::rules {

/** The names of the rules behind an event, the first one first, with commas between them. Any thread. */
class Chain {
public:
    /** The property that holds it. */
    static constexpr const char* key = "ruleChain";

    /** Empty for an event that no rule is behind. */
    static std::string Of(const ReceivedEvent& event);

    static bool Holds(std::string_view chain, std::string_view name);

    /** The first one, and what is in the second and not in it. */
    static std::string Joined(std::string_view first, std::string_view second);
};

}  // namespace kelto::companion::rules
