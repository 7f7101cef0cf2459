#include "companions/ctl/ValueForm.h"

#include "companions/ctl/Nearest.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

std::string_view Trim(std::string_view text) {
    const size_t begin = text.find_first_not_of(" \t");
    return begin == std::string_view::npos ? std::string_view()
                                           : text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

/** A number with or without a fraction, and what stands behind it. */
struct Measure {
    double number;
    std::string unit;
};

std::optional<Measure> ParseMeasure(std::string_view value) {
    const std::string bare = ValueForm::Bare(value);
    std::string_view text = bare;
    if (text.starts_with('+')) {
        text.remove_prefix(1);
    }
    double number = 0;
    const auto [stop, error] =
        std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
    if (error != std::errc() || !std::isfinite(number)) {
        return std::nullopt;
    }
    std::string unit(Trim(text.substr(static_cast<size_t>(stop - text.data()))));
    std::transform(unit.begin(), unit.end(), unit.begin(), [](unsigned char c) { return std::tolower(c); });
    return Measure{number, std::move(unit)};
}

/** How many milliseconds a unit of time has; 0 for what is none. */
double MillisecondsOf(std::string_view unit) {
    constexpr std::array<std::pair<std::string_view, double>, 17> units = {{{"ms", 1},
                                                                            {"msec", 1},
                                                                            {"millis", 1},
                                                                            {"s", 1000},
                                                                            {"sec", 1000},
                                                                            {"secs", 1000},
                                                                            {"second", 1000},
                                                                            {"seconds", 1000},
                                                                            {"m", 60'000},
                                                                            {"min", 60'000},
                                                                            {"mins", 60'000},
                                                                            {"minute", 60'000},
                                                                            {"minutes", 60'000},
                                                                            {"h", 3'600'000},
                                                                            {"hour", 3'600'000},
                                                                            {"hours", 3'600'000},
                                                                            {"d", 86'400'000}}};
    const auto* const found =
        std::find_if(units.begin(), units.end(), [&](const auto& one) { return one.first == unit; });
    return found == units.end() ? 0 : found->second;
}

std::optional<std::string> WholeNumber(double number) {
    if (number != std::floor(number) || std::abs(number) > INT32_MAX) {
        return std::nullopt;
    }
    return std::to_string(static_cast<int32_t>(number));
}

}  // namespace

bool ValueForm::IsQuoted(std::string_view value) {
    return value.size() >= 2 && value.front() == value.back() && (value.front() == '"' || value.front() == '\'');
}

size_t ValueForm::CommentAt(std::string_view value) {
    for (size_t at = 1; at < value.size(); ++at) {
        const bool isBehindBlank = value[at - 1] == ' ' || value[at - 1] == '\t';
        const bool isMark = value[at] == '#' || value[at] == ';' || value.substr(at).starts_with("//");
        if (isBehindBlank && isMark) {
            return at;
        }
    }
    return std::string_view::npos;
}

std::string ValueForm::Bare(std::string_view value) {
    value = Trim(value.substr(0, CommentAt(value)));
    if (IsQuoted(value)) {
        value = Trim(value.substr(1, value.size() - 2));
    }
    return std::string(value);
}

std::optional<std::string> ValueForm::Number(std::string_view value, std::string_view unit) {
    const std::optional<Measure> measure = ParseMeasure(value);
    if (!measure) {
        return std::nullopt;
    }
    if (measure->unit.empty()) {
        return WholeNumber(measure->number);
    }
    const double written = MillisecondsOf(measure->unit);
    const double wanted = MillisecondsOf(unit);
    if (written == 0 || wanted == 0) {
        return std::nullopt;
    }
    return WholeNumber(measure->number * written / wanted);
}

std::optional<std::string> ValueForm::Size(std::string_view value) {
    constexpr std::string_view letters = "kmgt";
    const std::optional<Measure> measure = ParseMeasure(value);
    if (!measure || measure->number <= 0) {
        return std::nullopt;
    }
    std::string unit = measure->unit;
    if (unit.ends_with('b')) {
        unit.pop_back();
    }
    if (unit.ends_with('i')) {
        unit.pop_back();
    }
    size_t letter = unit.size() == 1 ? letters.find(unit.front()) : std::string_view::npos;
    double number = measure->number;
    // 1.5G is 1536M.
    while (number != std::floor(number) && letter != std::string_view::npos && letter > 0) {
        number *= 1024;
        --letter;
    }
    const std::optional<std::string> whole = WholeNumber(number);
    if (!whole || (letter == std::string_view::npos && !unit.empty())) {
        return std::nullopt;
    }
    return letter == std::string_view::npos
               ? whole
               : *whole +
                     static_cast<char>(letter == 0 ? 'k' : std::toupper(static_cast<unsigned char>(letters[letter])));
}

std::optional<std::string> ValueForm::Boolean(std::string_view value) {
    constexpr std::array<std::string_view, 10> yes = {"true", "yes",     "on",     "1",  "y",
                                                      "t",    "enabled", "enable", "ja", "si"};
    constexpr std::array<std::string_view, 9> no = {"false", "no", "off", "0", "n", "f", "disabled", "disable", "nein"};
    const std::string bare = Bare(value);
    const auto says = [&](std::string_view word) { return Nearest::IsEqualButForCase(word, bare); };
    if (std::any_of(yes.begin(), yes.end(), says)) {
        return "true";
    }
    if (std::any_of(no.begin(), no.end(), says)) {
        return "false";
    }
    return Nearest::Find(bare, {"true", "false"});
}

}  // namespace kelto::halvek::ctl
