#include "companions/mqtt/PlainText.h"

#include "companions/common/Utf8.h"

namespace kelto::halvek::mqtt {

std::string PlainText::Escape(std::string_view text) {
    constexpr const char* digits = "0123456789abcdef";
    std::string escaped;
    while (!text.empty()) {
        const companion::Utf8Character character = companion::FirstCharacter(text);
        const std::string_view bytes = text.substr(0, character.length);
        if (character.isValid && !character.IsControl()) {
            escaped.append(bytes);
        } else {
            for (const char byte : bytes) {
                const auto number = static_cast<unsigned char>(byte);
                escaped.append({'\\', 'x', digits[number >> 4U], digits[number & 0xfU]});
            }
        }
        text.remove_prefix(character.length);
    }
    return escaped;
}

}  // namespace kelto::halvek::mqtt
