#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelto::halvek::outbox {

/** Lines key=value, as items and submissions have them. A value may hold any byte: what breaks a line is escaped. */
class FieldText {
public:
    using Fields = std::vector<std::pair<std::string, std::string>>;

    static void Append(std::string& text, std::string_view key, std::string_view value);

    /** The fields in their order, up to the first empty line. Nothing if a line is none. */
    static std::optional<Fields> Parse(std::string_view text);

    /** Every byte but letters, digits, "-", "_" and "." as %XX: for a part of a URL's path. */
    static std::string EscapeForUrl(std::string_view text);

    /** A whole number without a sign, at most the given one; nothing for anything else. */
    static std::optional<int64_t> Number(std::string_view text, int64_t highest = INT64_MAX);
};

}  // namespace kelto::halvek::outbox
