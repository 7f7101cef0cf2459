#include "kelto/settings/IniParser.h"

#include "kelto/osa/Exception.h"

namespace kelto::settings {

namespace {

constexpr std::string_view blanks = " \t";
constexpr std::string_view lineEnd = " \t\r";

/** Drops blanks from the front and the given characters from the end. */
std::string_view Trim(std::string_view text, std::string_view atEnd = blanks) {
    const size_t end = text.find_last_not_of(atEnd);
    text = text.substr(0, end == std::string_view::npos ? 0 : end + 1);
    const size_t begin = text.find_first_not_of(blanks);
    return begin == std::string_view::npos ? std::string_view() : text.substr(begin);
}

std::string_view TakeLine(std::string_view& text) {
    const size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return Trim(line, lineEnd);
}

/** The name between the brackets if the line is a group header. */
bool ParseHeader(std::string_view line, std::string_view& name) {
    if (line.front() != '[' || line.find(']') != line.size() - 1) {
        return false;
    }
    name = line.substr(1, line.size() - 2);
    return true;
}

bool ParseEntry(std::string_view line, std::string_view& key, std::string_view& value) {
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos || line.front() == '[') {
        return false;
    }
    key = Trim(line.substr(0, equals));
    value = Trim(line.substr(equals + 1));
    return !key.empty();
}

}  // namespace

void IniParser::Parse(std::string_view text, const std::string& name, core::IniFile& ini) {
    core::IniFile::Group* group = nullptr;
    for (unsigned number = 1; !text.empty(); ++number) {
        const std::string_view line = TakeLine(text);
        std::string_view header;
        std::string_view key;
        std::string_view value;
        if (line.empty() || line.front() == '#' || line.front() == ';') {
            continue;
        }
        if (ParseHeader(line, header)) {
            group = &ini.AddGroup(std::string(header));
        } else if (group != nullptr && ParseEntry(line, key, value)) {
            (*group)[std::string(key)] = value;
        } else {
            throw osa::Exception("%s:%u: neither a [group] nor a key=value of a group", name.c_str(), number);
        }
    }
}

}  // namespace kelto::settings
