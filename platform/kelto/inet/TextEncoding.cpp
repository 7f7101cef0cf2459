#include "kelto/inet/TextEncoding.h"

#include "kelto/core/StringUtil.h"

#include <algorithm>

namespace kelto::inet {

namespace {

/** In bytes, without the line end: what a mail server must take at least, and what quoted-printable allows. */
constexpr size_t longestPlainLine = 998;
constexpr size_t longestEncodedLine = 76;

bool IsPrintable(char character) {
    return character >= ' ' && character <= '~';
}

bool IsBlank(char character) {
    return character == ' ' || character == '\t';
}

bool IsPlainLine(const std::string& line) {
    return line.size() <= longestPlainLine && !line.starts_with('.') &&
           std::all_of(line.begin(), line.end(), [](char c) { return IsPrintable(c) || IsBlank(c); });
}

std::string Escape(char character) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    const auto value = static_cast<unsigned char>(character);
    return {'=', digits[value / 16], digits[value % 16]};
}

/** One character of a line; blanks at its end, and a "." at the beginning of what is written, would not survive. */
std::string EncodeCharacter(char character, bool isFirst, bool isLast) {
    const bool survives = IsBlank(character) ? !isLast : IsPrintable(character) && character != '=';
    return survives && !(isFirst && character == '.') ? std::string(1, character) : Escape(character);
}

void AppendEncodedLine(std::string& encoded, const std::string& line) {
    size_t length = 0;
    for (size_t at = 0; at < line.size(); ++at) {
        const bool isLast = at + 1 == line.size();
        std::string token = EncodeCharacter(line[at], length == 0, isLast);
        // Room is kept for the "=" that goes on in the next line.
        if (length + token.size() > longestEncodedLine - (isLast ? 0 : 1)) {
            encoded += "=\n";
            length = 0;
            token = EncodeCharacter(line[at], true, isLast);
        }
        encoded += token;
        length += token.size();
    }
}

}  // namespace

EncodedText EncodeText(std::string_view text) {
    const std::string unified = core::StringUtil::Replace(core::StringUtil::Replace(text, "\r\n", "\n"), "\r", "\n");
    const std::vector<std::string> lines = core::StringUtil::Split(unified, '\n');
    if (std::all_of(lines.begin(), lines.end(), IsPlainLine)) {
        return {unified, false};
    }
    std::string encoded;
    for (const std::string& line : lines) {
        encoded += &line == &lines.front() ? "" : "\n";
        AppendEncodedLine(encoded, line);
    }
    return {encoded, true};
}

}  // namespace kelto::inet
