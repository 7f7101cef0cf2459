#pragma once

#include "env/SettingsKeys.h"
#include "kelto/core/IniFile.h"

#include <cstdint>
#include <string>

namespace kelto::halvek {

/**
 * Reads keys as their rows in the tables want it. All that the daemon knows of its settings it reads here. Any thread.
 *
 * kelto::osa::Exception names the key, and the value if that is what is wrong.
 */
class SettingsReader {
public:
    /** Looks at the group, which must outlive the reader. */
    explicit SettingsReader(const core::IniFile::Group& readGroup) : group(readGroup) {}

    bool Has(const char* key) const;

    /** False without the key: the value is the key's default then, or untouched if it has none. Throws nothing. */
    bool TryRead(const TextKey& key, std::string& value) const;

    /**
     * False if the key's default holds for want of a number, which the value is then. One out of range counts as one.
     *
     * @throws kelto::osa::Exception for what is no number, if the key wants that
     */
    bool TryRead(const IntegerKey& key, int32_t& value) const;

    /** The number that holds. Throws as TryRead does. */
    int32_t Read(const IntegerKey& key) const;

    /** Throws kelto::osa::Exception for what is no boolean, and without a key that is required. */
    bool Read(const BooleanKey& key) const;

    /** The value of a required key. Throws kelto::osa::Exception if the group or the key is not there. */
    static const std::string& Read(const core::IniFile& ini, const std::string& groupName, const TextKey& key);

private:
    const core::IniFile::Group& group;
};

}  // namespace kelto::halvek
