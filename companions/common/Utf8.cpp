#include "companions/common/Utf8.h"

namespace kelto::companion {

namespace {

constexpr Utf8Character invalid{1, 0, false};

/** The smallest code point that needs so many bytes; a smaller one is an overlong form. */
constexpr char32_t Smallest(size_t length) {
    return length == 2 ? 0x80 : length == 3 ? 0x800 : 0x10000;
}

bool IsSurrogate(char32_t code) {
    return code >= 0xd800 && code < 0xe000;
}

Utf8Character Longer(std::string_view text, size_t length, char32_t code) {
    if (text.size() < length) {
        return invalid;
    }
    for (const char next : text.substr(1, length - 1)) {
        const auto byte = static_cast<unsigned char>(next);
        if ((byte & 0xc0U) != 0x80) {
            return invalid;
        }
        code = code << 6U | (byte & 0x3fU);
    }
    if (code < Smallest(length) || code > 0x10ffff || IsSurrogate(code)) {
        return invalid;
    }
    return {length, code, true};
}

}  // namespace

Utf8Character FirstCharacter(std::string_view text) {
    const auto byte = static_cast<unsigned char>(text.front());
    if (byte < 0x80) {
        return {1, byte, true};
    }
    if (byte < 0xe0) {
        return byte < 0xc0 ? invalid : Longer(text, 2, byte & 0x1fU);
    }
    if (byte < 0xf0) {
        return Longer(text, 3, byte & 0xfU);
    }
    return byte < 0xf8 ? Longer(text, 4, byte & 0x7U) : invalid;
}

}  // namespace kelto::companion
