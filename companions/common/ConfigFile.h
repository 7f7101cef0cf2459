#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kelto::companion {

/** A place in a configuration file as people name it. */
struct ConfigPlace {
    /** From 1. */
    unsigned line = 0;
    /** In characters, from 1; a byte that is no UTF-8 counts as one. */
    unsigned column = 0;

    // clang-tidy 14 takes the comparison with zero in it for a null pointer. NOLINTNEXTLINE(modernize-use-nullptr)
    auto operator<=>(const ConfigPlace&) const = default;
};

/** A key and its value, and where they stand. */
struct ConfigEntry {
    std::string key;
    std::string value;
    ConfigPlace keyPlace;
    /** Behind the "=" if the value is empty. */
    ConfigPlace valuePlace;
};

/** A header and what stands below it. */
struct ConfigGroup {
    std::string name;
    ConfigPlace place;
    /** In the order of the file. A key may come twice. */
    std::vector<ConfigEntry> entries;

    /** The last entry with this key; null if there is none. */
    const ConfigEntry* Find(std::string_view key) const;
};

/** A line that is neither group, entry nor comment. */
struct ConfigFault {
    ConfigPlace place;
    std::string text;
};

/**
 * The configuration of one of our programs: groups of keys and values with their places.
 *
 *     [Group name]
 *     ; a comment, as a line that begins with "#" is
 *     Key=value                 ; a comment too: there is a blank in front of it
 *
 * It decides nothing: each header is a group of its own, and every entry is kept, so that whoever knows the keys can
 * say where one is unknown, comes twice or has a wrong value. Blanks around names, keys and values are dropped. A value
 * may hold "=", "#" and a ";" without a blank in front. Any thread may read it.
 */
class ConfigFile {
public:
    /** Larger ones are not ours. In bytes. */
    static constexpr size_t largestFile = size_t{1024} * 1024;

    /** @param path what it is called in messages, too @throws std::system_error that names it, if it cannot be read */
    static ConfigFile Load(const std::string& path);

    /** The text of a file that is no larger than largestFile. @throws std::system_error that names it, else */
    static std::string ReadText(const std::string& path);

    ConfigFile(std::string path, std::string_view text);

    const std::string& Path() const { return path; }
    const std::vector<ConfigGroup>& Groups() const { return groups; }
    /** In the order of the file. */
    const std::vector<ConfigFault>& Faults() const { return faults; }

    /** FILE:LINE:COLUMN */
    std::string At(const ConfigPlace& place) const;

private:
    void TakeLine(std::string_view line, unsigned number);

    std::string path;
    std::vector<ConfigGroup> groups;
    std::vector<ConfigFault> faults;
};

}  // namespace kelto::companion
