#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace kelto::core {

/**
 * A snapshot of settings: groups of key and value texts, both in byte order of their names.
 *
 * A plain value without locks. The strict getters throw kelto::osa::Exception naming the group or the key.
 *
 * Integers are decimal, the whole text, with an optional leading "-"; leading zeros are allowed, a "+" or blanks are
 * not. Bools are true/false, yes/no, on/off and 1/0 in any case. The getters with a default use it for an absent key
 * only: a value that is there but cannot be read is always an error.
 */
class IniFile {
public:
    using Group = std::map<std::string, std::string>;
    using Groups = std::map<std::string, Group>;

    /** All groups. */
    const Groups& GetGroups() const { return groups; }

    /** The group of that name, made empty if it is not there yet. */
    Group& AddGroup(const std::string& name) { return groups[name]; }

    /** The group of that name; an empty one if it is not there. */
    const Group& FindGroup(const std::string& name) const;

    /** The value of a key. Throws if the group or the key is not there. */
    const std::string& GetValue(const std::string& group, const std::string& key) const;

    /** All groups as text, in the form in which they are read. */
    std::string SaveToString() const;

    /** The value of a key. Throws if the key is not there. */
    static const std::string& GetValueFromGroup(const Group& group, const std::string& key);

    /** Copies the value of a key and returns true; false, and the value untouched, if the key is not there. */
    static bool TryGetValueFromGroup(const Group& group, const std::string& key, std::string& value);

    /** The integer value of a key. Throws if it is not there or no 32-bit integer. */
    static int32_t GetIntFromGroup(const Group& group, const std::string& key);
    static int32_t GetIntOrDefaultFromGroup(const Group& group, const std::string& key, int32_t absent);

    /** The bool value of a key. Throws if it is not there or no bool. */
    static bool GetBoolFromGroup(const Group& group, const std::string& key);
    static bool GetBoolOrDefaultFromGroup(const Group& group, const std::string& key, bool absent);

private:
    Groups groups;
};

}  // namespace kelto::core
