#pragma once

#include "companions/ctl/StorePositions.h"
#include "kelto/core/IniFile.h"
#include "kelto/osa/Exception.h"
#include "kelto/settings/IniParser.h"

#include <string>
#include <vector>

namespace kelto::test {

/** What the store's parser makes of some files, or what it refuses them with. */
struct ParsedStore {
    core::IniFile::Groups groups;
    std::string refusal;

    bool operator==(const ParsedStore&) const = default;
};

inline std::string NameOfFile(size_t number) {
    return std::to_string(number) + ".ini";
}

inline ParsedStore ParseWithTheStore(const std::vector<std::string>& texts) {
    core::IniFile ini;
    try {
        for (size_t i = 0; i < texts.size(); ++i) {
            settings::IniParser::Parse(texts[i], NameOfFile(i), ini);
        }
    } catch (const osa::Exception& exception) {
        return {{}, exception.what()};
    }
    return {ini.GetGroups(), ""};
}

/** The same, put together from the lines and where they stand. */
inline ParsedStore ParseWithPositions(const std::vector<std::string>& texts) {
    halvek::ctl::StorePositions positions;
    for (size_t i = 0; i < texts.size(); ++i) {
        positions.Add(NameOfFile(i), texts[i]);
    }
    if (const auto* const line = positions.FirstMalformed()) {
        return {{},
                positions.FileName(line->file) + ":" + std::to_string(line->number) +
                    ": neither a [group] nor a key=value of a group"};
    }
    core::IniFile ini;
    for (const auto& line : positions.AllLines()) {
        if (line.kind == halvek::ctl::StorePositions::Kind::Header) {
            ini.AddGroup(std::string(line.group));
        } else if (line.kind == halvek::ctl::StorePositions::Kind::Entry) {
            ini.AddGroup(std::string(line.group))[std::string(line.key)] = line.value;
        }
    }
    return {ini.GetGroups(), ""};
}

}  // namespace kelto::test
