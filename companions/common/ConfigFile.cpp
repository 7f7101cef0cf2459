#include "companions/common/ConfigFile.h"

#include "companions/common/ReadToEnd.h"
#include "companions/common/UniqueFd.h"
#include "companions/common/Utf8.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace kelto::companion {

namespace {

constexpr std::string_view blanks = " \t";
constexpr std::string_view lineEnd = " \t\r";

/** Drops blanks from the front and the given characters from the end. What is left of nothing stands where it was. */
std::string_view Trim(std::string_view text, std::string_view atEnd = blanks) {
    text.remove_suffix(text.size() - (text.find_last_not_of(atEnd) + 1));
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    return text;
}

/** What stands in front of a comment that follows a blank. */
std::string_view WithoutComment(std::string_view text) {
    for (size_t mark = text.find(';'); mark != std::string_view::npos; mark = text.find(';', mark + 1)) {
        if (mark > 0 && blanks.find(text[mark - 1]) != std::string_view::npos) {
            return text.substr(0, mark);
        }
    }
    return text;
}

/** Where a part of a line begins in it. */
ConfigPlace PlaceOf(std::string_view line, unsigned number, std::string_view part) {
    unsigned column = 1;
    std::string_view before = line.substr(0, static_cast<size_t>(part.data() - line.data()));
    while (!before.empty()) {
        before.remove_prefix(FirstCharacter(before).length);
        ++column;
    }
    return {number, column};
}

[[noreturn]] void Fail(int error, const std::string& path) {
    throw std::system_error(error, std::generic_category(), path);
}

}  // namespace

const ConfigEntry* ConfigGroup::Find(std::string_view key) const {
    const auto found =
        std::find_if(entries.rbegin(), entries.rend(), [&](const auto& entry) { return entry.key == key; });
    return found == entries.rend() ? nullptr : &*found;
}

ConfigFile ConfigFile::Load(const std::string& path) {
    return {path, ReadText(path)};
}

std::string ConfigFile::ReadText(const std::string& path) {
    // Not to wait for a writer, if it is a pipe.
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        Fail(errno, path);
    }
    if (!S_ISREG(status.st_mode)) {
        Fail(S_ISDIR(status.st_mode) ? EISDIR : EINVAL, path);
    }
    std::string text;
    if (const int error = ReadToEnd(file.Get(), text, largestFile); error != 0) {
        Fail(error, path);
    }
    return text;
}

ConfigFile::ConfigFile(std::string filePath, std::string_view text) : path(std::move(filePath)) {
    for (unsigned number = 1; !text.empty(); ++number) {
        const size_t end = std::min(text.find('\n'), text.size());
        TakeLine(text.substr(0, end), number);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

void ConfigFile::TakeLine(std::string_view line, unsigned number) {
    const std::string_view text = Trim(line, lineEnd);
    if (text.empty() || text.front() == ';' || text.front() == '#') {
        return;
    }
    const ConfigPlace place = PlaceOf(line, number, text);
    if (text.front() == '[') {
        const size_t end = text.find(']');
        if (end == std::string_view::npos || !Trim(WithoutComment(text.substr(end + 1))).empty()) {
            faults.push_back({place, "a group is a name in brackets: [Name]"});
            return;
        }
        groups.push_back({std::string(Trim(text.substr(1, end - 1))), place, {}});
        return;
    }
    const size_t equals = text.find('=');
    const std::string_view key = Trim(text.substr(0, equals));
    if (equals == std::string_view::npos || key.empty()) {
        faults.push_back({place, "neither a group, [Name], nor an entry, Key=value"});
        return;
    }
    if (groups.empty()) {
        faults.push_back({place, "an entry before the first group"});
        return;
    }
    const std::string_view value = Trim(WithoutComment(text.substr(equals + 1)));
    groups.back().entries.push_back({std::string(key), std::string(value), place, PlaceOf(line, number, value)});
}

std::string ConfigFile::At(const ConfigPlace& place) const {
    return path + ":" + std::to_string(place.line) + ":" + std::to_string(place.column);
}

}  // namespace kelto::companion
