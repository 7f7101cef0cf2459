#include "companions/ctl/Secret.h"

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

}  // namespace

bool Secret::IsName(std::string_view key) {
    return EndOfWord(key) != std::string::npos;
}

std::string Secret::Masked(std::string_view line) {
    const size_t equals = line.find('=');
    const size_t end = EndOfWord(line);
    if (end == std::string::npos || line.empty() || line.front() == '[' || line.front() == '#' || line.front() == ';') {
        return std::string(line);
    }
    if (equals != std::string_view::npos && end <= equals) {
        return std::string(line.substr(0, equals + 1)) + "***";
    }
    return equals != std::string_view::npos ? std::string(line) : std::string(line.substr(0, end)) + "***";
}

}  // namespace kelto::halvek::ctl
