#include "kelto/core/IniFile.h"

#include "kelto/core/StringUtil.h"
#include "kelto/osa/Exception.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace kelto::core {

namespace {

using Words = std::array<std::string_view, 4>;

constexpr Words trueWords = {"true", "yes", "on", "1"};
constexpr Words falseWords = {"false", "no", "off", "0"};

bool IsOneOf(const Words& words, const std::string& text) {
    return std::any_of(words.begin(), words.end(), [&](std::string_view word) {
        return word.size() == text.size() && strncasecmp(word.data(), text.data(), word.size()) == 0;
    });
}

}  // namespace

const IniFile::Group& IniFile::FindGroup(const std::string& name) const {
    static const Group empty;
    const auto group = groups.find(name);
    return group == groups.end() ? empty : group->second;
}

const std::string& IniFile::GetValue(const std::string& group, const std::string& key) const {
    const auto found = groups.find(group);
    if (found == groups.end()) {
        throw osa::Exception("There is no settings group %s", group.c_str());
    }
    const auto value = found->second.find(key);
    if (value == found->second.end()) {
        throw osa::Exception("There is no key %s in settings group %s", key.c_str(), group.c_str());
    }
    return value->second;
}

std::string IniFile::SaveToString() const {
    std::string text;
    for (const auto& [name, group] : groups) {
        text.append("[").append(name).append("]\n");
        for (const auto& [key, value] : group) {
            text.append(key).append("=").append(value).append("\n");
        }
    }
    return text;
}

const std::string& IniFile::GetValueFromGroup(const Group& group, const std::string& key) {
    const auto value = group.find(key);
    if (value == group.end()) {
        throw osa::Exception("There is no key %s", key.c_str());
    }
    return value->second;
}

bool IniFile::TryGetValueFromGroup(const Group& group, const std::string& key, std::string& value) {
    const auto found = group.find(key);
    if (found == group.end()) {
        return false;
    }
    value = found->second;
    return true;
}

int32_t IniFile::GetIntFromGroup(const Group& group, const std::string& key) {
    const std::string& text = GetValueFromGroup(group, key);
    int32_t value = 0;
    if (!StringUtil::TryParse(text, value)) {
        throw osa::Exception("The value of key %s is not an integer: %s", key.c_str(), text.c_str());
    }
    return value;
}

int32_t IniFile::GetIntOrDefaultFromGroup(const Group& group, const std::string& key, int32_t absent) {
    return group.count(key) == 0 ? absent : GetIntFromGroup(group, key);
}

bool IniFile::GetBoolFromGroup(const Group& group, const std::string& key) {
    const std::string& text = GetValueFromGroup(group, key);
    if (IsOneOf(trueWords, text)) {
        return true;
    }
    if (IsOneOf(falseWords, text)) {
        return false;
    }
    throw osa::Exception("The value of key %s is neither true nor false: %s", key.c_str(), text.c_str());
}

bool IniFile::GetBoolOrDefaultFromGroup(const Group& group, const std::string& key, bool absent) {
    return group.count(key) == 0 ? absent : GetBoolFromGroup(group, key);
}

}  // namespace kelto::core
