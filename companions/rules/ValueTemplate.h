#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kelto::companion::rules {

/**
 * The value of a property of a new event: a text with "${key}" where a property of the event behind it stands.
 *
 * A plain value. Any thread.
 */
class ValueTemplate {
public:
    /** Gives the property's value; null if there is none, which stands as an empty text. */
    using Lookup = std::function<const std::string*(const std::string& key)>;

    /** @throws std::invalid_argument for a "${" without its "}" or with nothing in it; the text says so */
    explicit ValueTemplate(std::string_view text);

    std::string Fill(const Lookup& lookup) const;

    /** The keys of the properties that it takes, in their order. */
    std::vector<std::string> Keys() const;

    bool operator==(const ValueTemplate&) const = default;

private:
    struct Piece {
        std::string text;
        /** The text is a property's key. */
        bool isKey;

        bool operator==(const Piece&) const = default;
    };

    std::vector<Piece> pieces;
};

}  // namespace kelto::companion::rules
