#include "companions/common/Json.h"

#include "companions/common/Utf8.h"

#include <array>
#include <cstdio>

namespace kelto::companion {

namespace {

constexpr std::string_view replacement = "\xef\xbf\xbd";

void AppendEscape(std::string& text, char32_t code) {
    std::array<char, 8> escape{};
    const int length = std::snprintf(escape.data(), escape.size(), "\\u%04x", static_cast<unsigned>(code));
    text.append(escape.data(), static_cast<size_t>(length));
}

}  // namespace

Json& Json::Key(std::string_view name) {
    Separate();
    AppendQuoted(name);
    text.push_back(':');
    needsComma = false;
    return *this;
}

Json& Json::String(std::string_view value) {
    Separate();
    AppendQuoted(value);
    return *this;
}

Json& Json::Open(char bracket) {
    Separate();
    text.push_back(bracket);
    needsComma = false;
    return *this;
}

Json& Json::Close(char bracket) {
    text.push_back(bracket);
    needsComma = true;
    return *this;
}

Json& Json::Plain(std::string_view word) {
    Separate();
    text.append(word);
    return *this;
}

void Json::Separate() {
    if (needsComma) {
        text.push_back(',');
    }
    needsComma = true;
}

void Json::AppendQuoted(std::string_view value) {
    text.push_back('"');
    while (!value.empty()) {
        const Utf8Character character = FirstCharacter(value);
        if (!character.isValid) {
            text.append(replacement);
        } else if (character.IsControl()) {
            AppendEscape(text, character.code);
        } else {
            if (character.code == '"' || character.code == '\\') {
                text.push_back('\\');
            }
            text.append(value.substr(0, character.length));
        }
        value.remove_prefix(character.length);
    }
    text.push_back('"');
}

}  // namespace kelto::companion
