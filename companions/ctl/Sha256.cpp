#include "companions/ctl/Sha256.h"

#include <nettle/sha2.h>

#include <array>
#include <string_view>

namespace kelto::halvek::ctl {

std::string Sha256Of(const std::vector<Store::File>& files) {
    constexpr std::string_view digits = "0123456789abcdef";
    sha256_ctx context;
    sha256_init(&context);
    for (const Store::File& file : files) {
        sha256_update(&context, file.text.size(), reinterpret_cast<const uint8_t*>(file.text.data()));
    }
    std::array<uint8_t, SHA256_DIGEST_SIZE> digest{};
    sha256_digest(&context, digest.size(), digest.data());
    std::string text;
    for (const uint8_t byte : digest) {
        text.append(1, digits[byte / 16]).append(1, digits[byte % 16]);
    }
    return text;
}

}  // namespace kelto::halvek::ctl
