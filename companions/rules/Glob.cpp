#include "companions/rules/Glob.h"

#include "companions/common/Utf8.h"

#include <optional>

namespace kelto::companion::rules {

namespace {

char32_t TakeCharacter(std::string_view& text) {
    const Utf8Character character = FirstCharacter(text);
    const char32_t code = character.isValid ? character.code : static_cast<unsigned char>(text.front());
    text.remove_prefix(character.length);
    return code;
}

/** What stands between the brackets at the pattern's front, which is taken off with them; nothing without the second.
 */
std::optional<std::string_view> TakeSet(std::string_view& pattern) {
    // A "]" that comes first belongs to the set.
    const size_t first = pattern.substr(1).starts_with('!') ? 2 : 1;
    const size_t end = pattern.find(']', first + 1);
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view set = pattern.substr(1, end - 1);
    pattern.remove_prefix(end + 1);
    return set;
}

bool IsInSet(std::string_view set, char32_t code) {
    const bool isWanted = !set.starts_with('!');
    set.remove_prefix(isWanted ? 0 : 1);
    while (!set.empty()) {
        const char32_t low = TakeCharacter(set);
        char32_t high = low;
        if (set.size() > 1 && set.front() == '-') {
            set.remove_prefix(1);
            high = TakeCharacter(set);
        }
        if (code >= low && code <= high) {
            return isWanted;
        }
    }
    return !isWanted;
}

/** Whether the pattern's front, which is no "*", takes the text's first character. Both are taken off. */
bool TakeOne(std::string_view& pattern, std::string_view& text) {
    if (pattern.empty() || text.empty()) {
        return false;
    }
    const char32_t code = TakeCharacter(text);
    if (pattern.front() == '?') {
        pattern.remove_prefix(1);
        return true;
    }
    if (pattern.front() == '[') {
        if (const auto set = TakeSet(pattern)) {
            return IsInSet(*set, code);
        }
    }
    return TakeCharacter(pattern) == code;
}

}  // namespace

bool Glob::Matches(std::string_view pattern, std::string_view text) {
    // Only the last "*" has to be tried with more text: one before it can take no text that this one could not.
    std::optional<std::string_view> behindStar;
    std::string_view fromStar;
    while (!pattern.empty() || !text.empty()) {
        if (pattern.starts_with('*')) {
            pattern.remove_prefix(1);
            behindStar = pattern;
            fromStar = text;
            continue;
        }
        std::string_view restOfPattern = pattern;
        std::string_view restOfText = text;
        if (TakeOne(restOfPattern, restOfText)) {
            pattern = restOfPattern;
            text = restOfText;
            continue;
        }
        if (!behindStar || fromStar.empty()) {
            return false;
        }
        TakeCharacter(fromStar);
        pattern = *behindStar;
        text = fromStar;
    }
    return true;
}

}  // namespace kelto::companion::rules
