#include "companions/page/EntityTag.h"

namespace kelto::page {

namespace {

std::string_view Trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\n";
    const size_t begin = text.find_first_not_of(blanks);
    return begin == std::string_view::npos ? std::string_view()
                                           : text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

}  // namespace

bool Names(std::string_view ifNoneMatch, std::string_view tag) {
    while (!ifNoneMatch.empty()) {
        const size_t comma = ifNoneMatch.find(',');
        std::string_view named = Trimmed(ifNoneMatch.substr(0, comma));
        if (named.starts_with("W/")) {
            named.remove_prefix(2);
        }
        if (named == tag || named == "*") {
            return true;
        }
        ifNoneMatch.remove_prefix(comma == std::string_view::npos ? ifNoneMatch.size() : comma + 1);
    }
    return false;
}

}  // namespace kelto::page
