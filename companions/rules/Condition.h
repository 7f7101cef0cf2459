#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelto::companion::rules {

/**
 * What a property must be. "a" is that text, "a|b" either, "<5" and ">5" a number below or above, "~x*y" a text of that
 * pattern; "!" in front of all means none of it.
 *
 * A plain value. Any thread.
 */
class Condition {
public:
    /** @throws std::invalid_argument for "<" and ">" without a number; the text says so */
    explicit Condition(std::string_view text);

    /** @param value null if the event has no such property: then only what begins with "!" holds */
    bool Holds(const std::string* value) const;

    bool operator==(const Condition&) const = default;

private:
    struct Alternative {
        enum class Kind { Same, Below, Above, Pattern };

        Kind kind;
        std::string text;
        double number = 0;

        bool Holds(const std::string& value) const;
        bool operator==(const Alternative&) const = default;
    };

    static Alternative ParseAlternative(std::string_view text);

    bool isNegated = false;
    std::vector<Alternative> alternatives;
};

/** A text that is a decimal number, as a whole; nothing for any other. Any thread. */
std::optional<double> ParseNumber(std::string_view text);

}  // namespace kelto::companion::rules
