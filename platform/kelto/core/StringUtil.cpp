#include "kelto/core/StringUtil.h"

#include <charconv>

namespace kelto::core {

namespace {

template <typename Number>
bool ParseWhole(std::string_view text, Number& value) {
    Number parsed{};
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, parsed);
    if (error != std::errc() || stop != end) {
        return false;
    }
    value = parsed;
    return true;
}

bool DecodeEscape(std::string_view text, char& decoded) {
    unsigned char byte = 0;
    if (text.size() < 3 || text[0] != '%') {
        return false;
    }
    const char* const end = text.data() + 3;
    const auto [stop, error] = std::from_chars(text.data() + 1, end, byte, 16);
    if (error != std::errc() || stop != end) {
        return false;
    }
    decoded = static_cast<char>(byte);
    return true;
}

}  // namespace

std::vector<std::string> StringUtil::Split(std::string_view text, char separator) {
    std::vector<std::string> pieces;
    size_t begin = 0;
    for (size_t end = text.find(separator); end != std::string_view::npos; end = text.find(separator, begin)) {
        pieces.emplace_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    pieces.emplace_back(text.substr(begin));
    return pieces;
}

bool StringUtil::TryParse(std::string_view text, int32_t& value) {
    return ParseWhole(text, value);
}

bool StringUtil::TryParse(std::string_view text, uint32_t& value) {
    return ParseWhole(text, value);
}

std::string StringUtil::Replace(std::string_view text, std::string_view from, std::string_view to) {
    std::string result(text);
    if (from.empty()) {
        return result;
    }
    for (size_t at = result.find(from); at != std::string::npos; at = result.find(from, at + to.size())) {
        result.replace(at, from.size(), to);
    }
    return result;
}

bool StringUtil::StartsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

std::string StringUtil::UrlDecode(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    while (!text.empty()) {
        char byte = text.front();
        const bool escaped = DecodeEscape(text, byte);
        decoded += byte;
        text.remove_prefix(escaped ? 3 : 1);
    }
    return decoded;
}

}  // namespace kelto::core
