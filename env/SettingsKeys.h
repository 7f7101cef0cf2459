#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string_view>
#include <variant>

namespace kelto::halvek {

struct TextKey {
    const char* name;
    /** Whether what the group configures is left out without the key. */
    bool required = false;
    /** What holds without the key; null if nothing does. */
    const char* absent = nullptr;
};

/** A decimal number of 32 bits. */
struct IntegerKey {
    const char* name;
    /** What holds without the key. */
    int32_t absent;
    /** The numbers that make sense, both bounds included. */
    int32_t lowest = std::numeric_limits<int32_t>::min();
    int32_t highest = std::numeric_limits<int32_t>::max();
    /** Whether a value that is no such number counts as none; else it is an error, which costs the source or handler.
     */
    bool defaultIfUnreadable = false;
    /** Whether a number that makes no sense counts as none; else it is taken as it is. */
    bool defaultIfOutOfRange = false;
    /** Empty for a plain number. */
    const char* unit = "";
};

/** A value that is no boolean is an error, which costs the source or handler. */
struct BooleanKey {
    const char* name;
    /** What holds without the key; nothing if the key is required. */
    std::optional<bool> absent = std::nullopt;
};

using SettingsKey = std::variant<TextKey, IntegerKey, BooleanKey>;

constexpr std::string_view NameOf(const SettingsKey& key) {
    return std::visit([](const auto& known) -> std::string_view { return known.name; }, key);
}

/** Keys as whoever does not know their number sees them. */
using SettingsKeyList = std::span<const SettingsKey>;

/**
 * The keys of one settings group: a table that stands beside the class which is configured from the group.
 *
 * Keys are looked up while compiling, so that a class cannot read a key that its table does not have, or as another
 * kind of value.
 */
template <size_t count>
class SettingsKeys {
public:
    template <typename... Keys>
    consteval explicit SettingsKeys(const Keys&... listed) : keys{SettingsKey(listed)...} {
        for (size_t i = 0; i < count; ++i) {
            if (Find(NameOf(keys[i])) != i) {
                throw "a key stands in the table twice";
            }
        }
    }

    consteval const TextKey& Text(std::string_view name) const { return std::get<TextKey>(At(name)); }
    consteval const IntegerKey& Integer(std::string_view name) const { return std::get<IntegerKey>(At(name)); }
    consteval const BooleanKey& Boolean(std::string_view name) const { return std::get<BooleanKey>(At(name)); }

    constexpr SettingsKeyList List() const { return keys; }

private:
    constexpr size_t Find(std::string_view name) const {
        size_t i = 0;
        while (i < count && NameOf(keys[i]) != name) {
            ++i;
        }
        return i;
    }

    consteval const SettingsKey& At(std::string_view name) const {
        const size_t found = Find(name);
        if (found == count) {
            throw "no key of the table has that name";
        }
        return keys[found];
    }

    std::array<SettingsKey, count> keys;
};

template <typename... Keys>
SettingsKeys(const Keys&...) -> SettingsKeys<sizeof...(Keys)>;

}  // namespace kelto::halvek
