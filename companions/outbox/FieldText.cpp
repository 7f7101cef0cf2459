#include "companions/outbox/FieldText.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

namespace kelto::halvek::outbox {

namespace {

constexpr std::string_view digits = "0123456789ABCDEF";
constexpr std::string_view unreserved = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.";

void AppendEscape(std::string& text, char byte) {
    const auto value = static_cast<unsigned char>(byte);
    text.append({'%', digits[value >> 4U], digits[value & 0xfU]});
}

std::optional<std::string> Unescape(std::string_view text) {
    std::string value;
    while (!text.empty()) {
        if (text.front() != '%') {
            value.push_back(text.front());
            text.remove_prefix(1);
            continue;
        }
        unsigned byte = 0;
        const std::string_view pair = text.substr(1, 2);
        const auto [end, error] = std::from_chars(pair.data(), pair.data() + pair.size(), byte, 16);
        if (pair.size() != 2 || error != std::errc() || end != pair.data() + pair.size()) {
            return std::nullopt;
        }
        value.push_back(static_cast<char>(byte));
        text.remove_prefix(3);
    }
    return value;
}

}  // namespace

void FieldText::Append(std::string& text, std::string_view key, std::string_view value) {
    text.append(key).push_back('=');
    for (const char byte : value) {
        const auto code = static_cast<unsigned char>(byte);
        if (code < 0x20 || code == 0x7f || byte == '%') {
            AppendEscape(text, byte);
        } else {
            text.push_back(byte);
        }
    }
    text.push_back('\n');
}

std::optional<FieldText::Fields> FieldText::Parse(std::string_view text) {
    Fields fields;
    while (!text.empty() && text.front() != '\n') {
        const size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        const size_t equals = line.find('=');
        if (end == std::string_view::npos || equals == std::string_view::npos || equals == 0) {
            return std::nullopt;
        }
        std::optional<std::string> value = Unescape(line.substr(equals + 1));
        if (!value) {
            return std::nullopt;
        }
        fields.emplace_back(line.substr(0, equals), *std::move(value));
        text.remove_prefix(end + 1);
    }
    return fields;
}

std::string FieldText::EscapeForUrl(std::string_view text) {
    std::string escaped;
    for (const char byte : text) {
        if (unreserved.find(byte) == std::string_view::npos) {
            AppendEscape(escaped, byte);
        } else {
            escaped.push_back(byte);
        }
    }
    return escaped;
}

std::optional<int64_t> FieldText::Number(std::string_view text, int64_t highest) {
    int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = error == std::errc() && end == text.data() + text.size() && text.front() != '-';
    return isNumber && number <= highest ? std::optional(number) : std::nullopt;
}

}  // namespace kelto::halvek::outbox
