#include "camera/command/OneLine.h"

namespace kelto::vcam {

std::string OneLine(std::string_view text) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string line;
    for (const char character : text) {
        const auto code = static_cast<unsigned char>(character);
        if (code < ' ' || code == 0x7f) {
            line += {'\\', 'x', digits[code / 16], digits[code % 16]};
        } else {
            line += character;
        }
    }
    return line;
}

}  // namespace kelto::vcam
