#include "kelto/inet/AddressList.h"

namespace kelto::inet {

namespace {

constexpr std::string_view blanks = " \t";

void AppendTrimmed(std::vector<std::string>& pieces, std::string_view piece) {
    const size_t first = piece.find_first_not_of(blanks);
    if (first != std::string_view::npos) {
        pieces.emplace_back(piece.substr(first, piece.find_last_not_of(blanks) + 1 - first));
    }
}

}  // namespace

std::vector<std::string> SplitAddresses(std::string_view list) {
    std::vector<std::string> pieces;
    bool quoted = false;
    size_t begin = 0;
    for (size_t at = 0; at < list.size(); ++at) {
        const char character = list[at];
        if (character == '"') {
            quoted = !quoted;
        } else if (character == '\\' && quoted) {
            ++at;
        } else if (!quoted && (character == ',' || character == ';')) {
            AppendTrimmed(pieces, list.substr(begin, at - begin));
            begin = at + 1;
        }
    }
    AppendTrimmed(pieces, list.substr(begin));
    return pieces;
}

}  // namespace kelto::inet
