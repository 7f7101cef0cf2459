#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kelto::halvek::outbox {

/** The checksum CRC-32C (Castagnoli), piece by piece. One thread at a time. */
class Crc32c {
public:
    void Add(std::string_view piece);
    uint32_t Value() const { return ~state; }

    /** Eight hexadecimal digits in lower case. */
    std::string Hex() const;

private:
    uint32_t state = ~uint32_t{0};
};

}  // namespace kelto::halvek::outbox
