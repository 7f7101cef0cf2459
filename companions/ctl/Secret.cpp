#include "companions/ctl/Secret.h"

#include "companions/ctl/Nearest.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace kelto::halvek::ctl {

namespace {

constexpr std::array<std::string_view, 7> words = {"password", "passwd", "passphrase", "secret",
                                                   "token",    "apikey", "credential"};

std::string LowerCase(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    return lower;
}

/** Where the first of the words ends; npos without one. */
size_t EndOfWord(std::string_view text) {
    const std::string lower = LowerCase(text);
    size_t end = std::string::npos;
    for (const std::string_view word : words) {
        const size_t at = lower.find(word);
        if (at != std::string::npos) {
            end = std::min(end, at + word.size());
        }
    }
    return end;
}

bool IsMisspelt(std::string_view key) {
    constexpr std::string_view blanks = " \t[";
    const size_t begin = std::min(key.find_first_not_of(blanks), key.size());
    key = key.substr(begin, key.find_last_not_of(blanks) + 1 - begin);
    return Nearest::Find(key, {"Password"}).has_value();
}

}  // namespace

bool Secret::IsName(std::string_view key) {
    return EndOfWord(key) != std::string::npos;
}

std::string Secret::Masked(std::string_view line) {
    const size_t equals = line.find('=');
    const size_t end = EndOfWord(line);
    const bool isHeader = line.starts_with('[') && line.find(']') != std::string_view::npos;
    if (isHeader || line.starts_with('#') || line.starts_with(';')) {
        return std::string(line);
    }
    if (equals != std::string_view::npos && (end <= equals || IsMisspelt(line.substr(0, equals)))) {
        return std::string(line.substr(0, equals + 1)) + "***";
    }
    const bool isMalformed = equals == std::string_view::npos && end != std::string::npos;
    return isMalformed ? std::string(line.substr(0, end)) + "***" : std::string(line);
}

}  // namespace kelto::halvek::ctl
