#include "companions/outbox/Crc32c.h"

#include <array>
#include <cinttypes>
#include <cstdio>

namespace kelto::halvek::outbox {

namespace {

constexpr uint32_t reversedPolynomial = 0x82f63b78;

constexpr std::array<uint32_t, 256> MakeTable() {
    std::array<uint32_t, 256> table{};
    for (uint32_t byte = 0; byte < table.size(); ++byte) {
        uint32_t value = byte;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value >> 1U) ^ ((value & 1U) != 0 ? reversedPolynomial : 0);
        }
        table[byte] = value;
    }
    return table;
}

constexpr std::array<uint32_t, 256> table = MakeTable();

}  // namespace

void Crc32c::Add(std::string_view piece) {
    for (const char byte : piece) {
        state = (state >> 8U) ^ table[(state ^ static_cast<unsigned char>(byte)) & 0xffU];
    }
}

std::string Crc32c::Hex() const {
    std::array<char, 9> text{};
    std::snprintf(text.data(), text.size(), "%08" PRIx32, Value());
    return text.data();
}

}  // namespace kelto::halvek::outbox
