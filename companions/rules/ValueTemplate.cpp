#include "companions/rules/ValueTemplate.h"

#include <stdexcept>

namespace kelto::companion::rules {

ValueTemplate::ValueTemplate(std::string_view text) {
    while (!text.empty()) {
        const size_t begin = text.find("${");
        if (begin > 0) {
            pieces.push_back({std::string(text.substr(0, begin)), false});
        }
        if (begin == std::string_view::npos) {
            return;
        }
        const size_t end = text.find('}', begin);
        if (end == std::string_view::npos) {
            throw std::invalid_argument("\"${\" has no \"}\"");
        }
        if (end == begin + 2) {
            throw std::invalid_argument("\"${}\" names no property");
        }
        pieces.push_back({std::string(text.substr(begin + 2, end - begin - 2)), true});
        text.remove_prefix(end + 1);
    }
}

std::string ValueTemplate::Fill(const Lookup& lookup) const {
    std::string value;
    for (const Piece& piece : pieces) {
        if (!piece.isKey) {
            value.append(piece.text);
        } else if (const std::string* const found = lookup(piece.text)) {
            value.append(*found);
        }
    }
    return value;
}

std::vector<std::string> ValueTemplate::Keys() const {
    std::vector<std::string> keys;
    for (const Piece& piece : pieces) {
        if (piece.isKey) {
            keys.push_back(piece.text);
        }
    }
    return keys;
}

}  // namespace kelto::companion::rules
