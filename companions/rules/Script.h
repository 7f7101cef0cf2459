#pragma once

#include "companions/common/PostedEvent.h"
#include "companions/rules/Rule.h"

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelto::companion::rules {

/** A line of a script that is none; the text says where and why. */
class ScriptError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/** An event in a script. */
struct ScriptEvent {
    std::string type;
    std::vector<std::pair<std::string, std::string>> properties;

    /** As it is written in a script. */
    std::string Text() const;
};

/**
 * A test of rules: events with times, and what must have come out.
 *
 *     +0 Alarm alarmIndex=2 alarmState=1
 *     => DoorOpened door=front
 *     +29.5 Alarm alarmIndex=2 alarmState=1
 *     +61
 *
 * The time is that since the line with a time before. A line with a time alone lets it pass. A value with blanks in it
 * stands in double quotes. A plain value.
 */
struct Script {
    struct Step {
        unsigned line = 0;
        Rule::Milliseconds delay{0};
        std::optional<ScriptEvent> event;
        /** What must have come out by then and after the step before, with their lines. */
        std::vector<std::pair<unsigned, ScriptEvent>> expected;
    };

    /** @param name what messages call it @throws ScriptError */
    static Script Parse(const std::string& name, std::string_view text);

    std::vector<Step> steps;
};

}  // namespace kelto::companion::rules
