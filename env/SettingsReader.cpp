#include "env/SettingsReader.h"

#include "kelto/osa/Exception.h"

namespace kelto::halvek {

bool SettingsReader::Has(const char* key) const {
    return group.count(key) != 0;
}

bool SettingsReader::TryRead(const TextKey& key, std::string& value) const {
    if (core::IniFile::TryGetValueFromGroup(group, key.name, value)) {
        return true;
    }
    if (key.absent != nullptr) {
        value = key.absent;
    }
    return false;
}

bool SettingsReader::TryRead(const IntegerKey& key, int32_t& value) const {
    value = key.absent;
    if (!Has(key.name)) {
        return false;
    }
    int32_t number = 0;
    try {
        number = core::IniFile::GetIntFromGroup(group, key.name);
    } catch (const osa::Exception&) {
        if (key.defaultIfUnreadable) {
            return false;
        }
        throw;
    }
    const bool inRange = key.lowest <= number && number <= key.highest;
    if (inRange || !key.defaultIfOutOfRange) {
        value = number;
    }
    return true;
}

int32_t SettingsReader::Read(const IntegerKey& key) const {
    int32_t value = 0;
    TryRead(key, value);
    return value;
}

bool SettingsReader::Read(const BooleanKey& key) const {
    return key.absent.has_value() ? core::IniFile::GetBoolOrDefaultFromGroup(group, key.name, *key.absent)
                                  : core::IniFile::GetBoolFromGroup(group, key.name);
}

const std::string& SettingsReader::Read(const core::IniFile& ini, const std::string& groupName, const TextKey& key) {
    return ini.GetValue(groupName, key.name);
}

}  // namespace kelto::halvek
