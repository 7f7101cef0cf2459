#include "companions/rules/Condition.h"

#include "companions/rules/Glob.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <stdexcept>

namespace kelto::companion::rules {

std::optional<double> ParseNumber(std::string_view text) {
    if (text.starts_with('+')) {
        text.remove_prefix(1);
        if (text.starts_with('-')) {
            return std::nullopt;
        }
    }
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(number)) {
        return std::nullopt;
    }
    return number;
}

Condition::Condition(std::string_view text) {
    if (text.starts_with('!')) {
        isNegated = true;
        text.remove_prefix(1);
    }
    while (true) {
        const size_t bar = text.find('|');
        alternatives.push_back(ParseAlternative(text.substr(0, bar)));
        if (bar == std::string_view::npos) {
            return;
        }
        text.remove_prefix(bar + 1);
    }
}

Condition::Alternative Condition::ParseAlternative(std::string_view text) {
    using Kind = Alternative::Kind;
    if (text.starts_with('~')) {
        return {Kind::Pattern, std::string(text.substr(1))};
    }
    if (!text.starts_with('<') && !text.starts_with('>')) {
        return {Kind::Same, std::string(text)};
    }
    const std::optional<double> number = ParseNumber(text.substr(1));
    if (!number) {
        throw std::invalid_argument("\"" + std::string(text.substr(0, 1)) + "\" wants a number behind it");
    }
    return {text.front() == '<' ? Kind::Below : Kind::Above, std::string(), *number};
}

bool Condition::Holds(const std::string* value) const {
    if (value == nullptr) {
        return isNegated;
    }
    return isNegated != std::ranges::any_of(alternatives, [&](const Alternative& one) { return one.Holds(*value); });
}

bool Condition::Alternative::Holds(const std::string& value) const {
    if (kind == Kind::Same) {
        return value == text;
    }
    if (kind == Kind::Pattern) {
        return Glob::Matches(text, value);
    }
    const std::optional<double> valueNumber = ParseNumber(value);
    return valueNumber && (kind == Kind::Below ? *valueNumber < number : *valueNumber > number);
}

}  // namespace kelto::companion::rules
