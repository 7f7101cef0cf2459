#include "companions/common/Printable.h"

#include "companions/common/Utf8.h"

namespace kelto::companion {

namespace {

constexpr std::string_view digits = "0123456789abcdef";

void AppendBytes(std::string& text, std::string_view bytes) {
    for (const char character : bytes) {
        const auto byte = static_cast<unsigned char>(character);
        text.append("\\x").append(1, digits[byte / 16]).append(1, digits[byte % 16]);
    }
}

}  // namespace

std::string Printable(std::string_view text) {
    std::string printable;
    printable.reserve(text.size());
    while (!text.empty()) {
        const Utf8Character character = FirstCharacter(text);
        const std::string_view bytes = text.substr(0, character.length);
        if (!character.isValid || character.IsControl() || character.IsNoncharacter()) {
            AppendBytes(printable, bytes);
        } else {
            printable.append(bytes);
        }
        text.remove_prefix(bytes.size());
    }
    return printable;
}

}  // namespace kelto::companion
