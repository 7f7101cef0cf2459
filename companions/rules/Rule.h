#pragma once

#include "companions/rules/EventPattern.h"
#include "companions/rules/ValueTemplate.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace kelto::companion::rules {

/** One rule: on which events what is posted. A plain value; two that are equal do the same. */
struct Rule {
    using Milliseconds = std::chrono::milliseconds;

    enum class Kind {
        /** Posts at every event. */
        Each,
        /** Posts at the n-th event within a time. */
        Count,
        /** Posts when a second event follows within a time. */
        Then,
        /** Posts when no second event has come after a time. */
        Unless,
    };

    std::string name;
    Kind kind = Kind::Each;
    EventPattern when;
    /** What Then and Unless name. */
    EventPattern second;
    uint32_t count = 0;
    /** Within or After. */
    Milliseconds span{0};
    /** 0 for none. */
    Milliseconds holdOff{0};
    /** The properties by whose values windows are kept apart. */
    std::vector<std::string> same;
    /** The type of what it posts. */
    std::string post;
    /** The properties of what it posts, in the order of the file. */
    std::vector<std::pair<std::string, ValueTemplate>> set;
    /** The properties of events that `set` takes, each once. */
    std::vector<std::string> taken;

    bool operator==(const Rule&) const = default;
};

}  // namespace kelto::companion::rules
