#include "companions/page/Token.h"

#include "camera/runtime/Failure.h"

#include <sys/random.h>

#include <array>

namespace kelto::page {

std::string MakeToken() {
    std::array<unsigned char, 16> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw vcam::Failure("There are no random numbers");
    }
    constexpr const char* digits = "0123456789abcdef";
    std::string token;
    for (const unsigned char byte : bytes) {
        token += digits[byte >> 4U];
        token += digits[byte & 0xfU];
    }
    return token;
}

}  // namespace kelto::page
