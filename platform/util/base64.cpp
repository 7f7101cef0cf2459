#include "util/base64.h"

#include <cstdint>
#include <string_view>

namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char padding = '=';
constexpr unsigned groupLength = 4;

/** Gives the bytes of a text one by one to a function. */
template <typename Sink>
void Decode(const char* text, size_t length, Sink sink) {
    uint32_t bits = 0;
    unsigned digits = 0;
    unsigned pads = 0;
    for (size_t at = 0; at < length; ++at) {
        if (text[at] == padding) {
            ++pads;
            if (digits >= 2 && digits + pads >= groupLength) {
                return;
            }
            continue;
        }
        const size_t value = alphabet.find(text[at]);
        if (value == std::string_view::npos) {
            continue;
        }
        bits = bits << 6 | static_cast<uint32_t>(value);
        digits = (digits + 1) % groupLength;
        pads = 0;
        // Each digit but the first of a group completes a byte and leaves 4, 2 or no bits for the next one.
        if (digits != 1) {
            const unsigned bitsLeft = (groupLength - digits) % groupLength * 2;
            sink(static_cast<char>(bits >> bitsLeft & 0xFF));
        }
    }
}

}  // namespace

size_t base64_decode_len(const char* text, size_t length) {
    size_t count = 0;
    Decode(text, length, [&count](char) { ++count; });
    return count;
}

size_t base64_decode(const char* text, size_t length, char* out, size_t outLength) {
    size_t count = 0;
    Decode(text, length, [&](char byte) {
        if (count < outLength) {
            out[count++] = byte;
        }
    });
    return count;
}
