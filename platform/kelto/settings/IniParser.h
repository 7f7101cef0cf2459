#pragma once

#include "kelto/core/IniFile.h"

#include <string>
#include <string_view>

namespace kelto::settings {

/**
 * Reads settings text into groups.
 *
 * "[group]" opens a group, or continues the one of that name; "key=value" sets a key, or overwrites it. A line whose
 * first non-blank is "#" or ";" is a comment; inside a line there is none. Blanks (space, tab) around key and value do
 * not count, nor does a carriage return at the line's end. A group name may hold anything but a line break and "]".
 */
class IniParser {
public:
    /**
     * @param text the whole file
     * @param name what errors call it
     * @param ini  where the groups go; what it holds already is kept unless overwritten
     * @throws kelto::osa::Exception naming the file and the line number at the first line that is none of the above
     */
    static void Parse(std::string_view text, const std::string& name, core::IniFile& ini);
};

}  // namespace kelto::settings
