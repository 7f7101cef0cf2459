#include "kelto/core/ControlCharacters.h"

namespace kelto::core {

namespace {

constexpr std::string_view lineBreak = "\n    ";
constexpr std::string_view digits = "0123456789abcdef";
constexpr size_t escapeLength = 4;

bool IsControl(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return (byte < ' ' && byte != '\t') || byte == 0x7f;
}

size_t WrittenLength(char character) {
    if (!IsControl(character)) {
        return 1;
    }
    return character == '\n' ? lineBreak.size() : escapeLength;
}

/** Writes a character so that it ends before `end`; returns where it begins. */
char* WriteBackwards(char character, char* end) {
    char* const begin = end - WrittenLength(character);
    if (!IsControl(character)) {
        *begin = character;
    } else if (character == '\n') {
        lineBreak.copy(begin, lineBreak.size());
    } else {
        const auto byte = static_cast<unsigned char>(character);
        begin[0] = '\\';
        begin[1] = 'x';
        begin[2] = digits[byte / 16];
        begin[3] = digits[byte % 16];
    }
    return begin;
}

}  // namespace

std::string_view ControlCharacters::TrimLineBreaks(std::string_view text) {
    while (text.ends_with('\n')) {
        text.remove_suffix(text.ends_with("\r\n") ? 2 : 1);
    }
    return text;
}

size_t ControlCharacters::EscapedLength(std::string_view text) {
    size_t length = 0;
    for (const char character : text) {
        length += WrittenLength(character);
    }
    return length;
}

void ControlCharacters::Escape(char* text, size_t length, size_t escapedLength) {
    // From the back, so that nothing is overwritten before it has been moved. In front of the first control character
    // everything stands where it belongs.
    char* end = text + escapedLength;
    for (size_t left = length; end != text + left; --left) {
        end = WriteBackwards(text[left - 1], end);
    }
}

}  // namespace kelto::core
