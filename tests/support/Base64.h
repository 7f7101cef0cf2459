#pragma once

#include <string>

namespace kelto::test {

/** Bytes as base64: done bit by bit, so that it shares no mistake with what takes it apart. */
inline std::string Base64(const std::string& bytes) {
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const auto bitAt = [&](size_t bit) {
        return bit / 8 < bytes.size() && (static_cast<unsigned char>(bytes[bit / 8]) >> (7 - bit % 8) & 1) != 0;
    };
    std::string text;
    for (size_t first = 0; first < bytes.size() * 8; first += 6) {
        size_t digit = 0;
        for (size_t bit = first; bit < first + 6; ++bit) {
            digit = digit * 2 + (bitAt(bit) ? 1 : 0);
        }
        text += alphabet[digit];
    }
    return text.append((4 - text.size() % 4) % 4, '=');
}

}  // namespace kelto::test
