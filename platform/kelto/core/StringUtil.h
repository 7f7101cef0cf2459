#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kelto::core {

/** Operations on texts. They know no locale and keep no state, so any thread may call them. */
class StringUtil {
public:
    /** The pieces between the separators; empty pieces are kept, an empty text is one empty piece. */
    static std::vector<std::string> Split(std::string_view text, char separator);

    /**
     * Reads the whole text as a decimal number, with an optional leading "-" for the signed one. Returns false and
     * leaves the value untouched if the text holds anything else (a "+", a blank, nothing at all) or is out of range.
     */
    static bool TryParse(std::string_view text, int32_t& value);
    static bool TryParse(std::string_view text, uint32_t& value);

    /** Replaces every occurrence, from left to right; what was put in is not looked at again. */
    static std::string Replace(std::string_view text, std::string_view from, std::string_view to);

    static bool StartsWith(std::string_view text, std::string_view prefix);

    /** Decodes percent escapes only: "+" stays, and so does an escape that is not "%" and two hexadecimal digits. */
    static std::string UrlDecode(std::string_view text);
};

}  // namespace kelto::core
