#include "companions/ctl/StorePositions.h"

#include "companions/common/Utf8.h"

#include <algorithm>
#include <utility>

namespace kelto::halvek::ctl {

namespace {

using Line = StorePositions::Line;
using Kind = StorePositions::Kind;

constexpr std::string_view blanks = " \t";
constexpr std::string_view lineEnd = " \t\r";

/** Drops blanks from the front and the given characters from the end. What is left of nothing stands where it was. */
std::string_view Trim(std::string_view text, std::string_view atEnd = blanks) {
    text.remove_suffix(text.size() - (text.find_last_not_of(atEnd) + 1));
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    return text;
}

std::string_view TakeLine(std::string_view& text) {
    const size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

/** Where a part of a line begins in it. */
uint32_t ByteOf(const Line& line, std::string_view part) {
    return static_cast<uint32_t>(part.data() - line.text.data());
}

bool IsHeader(std::string_view text) {
    return text.front() == '[' && text.find(']') == text.size() - 1;
}

/** Fills in the key and the value; false if there is no key. */
bool ReadEntry(std::string_view text, Line& line) {
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos || text.front() == '[') {
        return false;
    }
    line.key = Trim(text.substr(0, equals));
    line.value = Trim(text.substr(equals + 1));
    line.keyByte = ByteOf(line, line.key);
    line.valueByte = ByteOf(line, line.value);
    return !line.key.empty();
}

/** Takes a line apart that may stand in a group. */
void Read(Line& line, bool hasGroup) {
    const std::string_view text = Trim(line.text, lineEnd);
    line.keyByte = line.valueByte = ByteOf(line, text);
    if (text.empty()) {
        line.kind = Kind::Blank;
    } else if (text.front() == '#' || text.front() == ';') {
        line.kind = Kind::Comment;
    } else if (IsHeader(text)) {
        line.kind = Kind::Header;
        line.group = text.substr(1, text.size() - 2);
    } else if (ReadEntry(text, line)) {
        line.kind = hasGroup ? Kind::Entry : Kind::KeyBeforeGroup;
    } else {
        line.kind = Kind::Malformed;
    }
}

}  // namespace

StorePositions::StorePositions(const Store& store) {
    if (store.fetched) {
        Add(*store.fetched);
        return;
    }
    for (const Store::File& file : store.files) {
        Add(file.path, file.text);
    }
}

Position StorePositions::BeginOf(const Store& store) {
    if (store.fetched) {
        return {};
    }
    return {store.files.empty() ? store.path : store.files.front().path, 1, 1};
}

void StorePositions::Add(const core::IniFile& fetched) {
    std::string all;
    for (const auto& [name, values] : fetched.GetGroups()) {
        all.append(name);
        for (const auto& [key, value] : values) {
            all.append(key).append(value);
        }
    }
    files.push_back(std::make_unique<const File>(File{"", std::move(all)}));
    std::string_view rest = files.back()->text;
    const auto take = [&](size_t length) {
        const std::string_view taken = rest.substr(0, length);
        rest.remove_prefix(length);
        return taken;
    };
    for (const auto& [name, values] : fetched.GetGroups()) {
        Line header{.kind = Kind::Header, .file = 0, .number = 0};
        header.group = header.text = take(name.size());
        Take(header);
        for (const auto& [key, value] : values) {
            Line entry{.kind = Kind::Entry, .file = 0, .number = 0};
            entry.group = header.group;
            entry.key = take(key.size());
            entry.value = entry.text = take(value.size());
            Take(entry);
        }
    }
}

void StorePositions::Add(std::string name, std::string text) {
    files.push_back(std::make_unique<const File>(File{std::move(name), std::move(text)}));
    std::string_view rest = files.back()->text;
    std::string_view group;
    bool hasGroup = false;
    for (uint32_t number = 1; !rest.empty(); ++number) {
        Line line{.kind = Kind::Blank, .file = static_cast<uint32_t>(files.size() - 1), .number = number};
        line.text = TakeLine(rest);
        line.group = group;
        Read(line, hasGroup);
        group = line.group;
        hasGroup = hasGroup || line.kind == Kind::Header;
        Take(line);
    }
}

void StorePositions::Take(const Line& line) {
    const Line& kept = lines.emplace_back(line);
    if (kept.kind == Kind::Header) {
        groups[kept.group].headers.push_back(&kept);
    } else if (kept.kind == Kind::Entry) {
        groups[kept.group].entries[kept.key].push_back(&kept);
    } else if (firstMalformed == nullptr && (kept.kind == Kind::Malformed || kept.kind == Kind::KeyBeforeGroup)) {
        firstMalformed = &kept;
    }
}

std::optional<Position> StorePositions::Find(std::string_view group, std::string_view key) const {
    if (key.empty()) {
        return Find(group);
    }
    const Line* const line = Holding(group, key);
    return line == nullptr ? std::nullopt : std::optional(KeyPosition(*line));
}

std::optional<Position> StorePositions::FindValue(std::string_view group, std::string_view key) const {
    const Line* const line = Holding(group, key);
    return line == nullptr ? std::nullopt : std::optional(ValuePosition(*line));
}

std::optional<Position> StorePositions::Find(std::string_view group) const {
    const Lines& headers = Headers(group);
    return headers.empty() ? std::nullopt : std::optional(KeyPosition(*headers.front()));
}

const Line* StorePositions::Holding(std::string_view group, std::string_view key) const {
    const Lines& entries = Entries(group, key);
    return entries.empty() ? nullptr : entries.back();
}

const StorePositions::Lines& StorePositions::Entries(std::string_view group, std::string_view key) const {
    static const Lines none;
    const auto found = groups.find(group);
    if (found == groups.end()) {
        return none;
    }
    const auto entries = found->second.entries.find(key);
    return entries == found->second.entries.end() ? none : entries->second;
}

const StorePositions::Lines& StorePositions::Headers(std::string_view group) const {
    static const Lines none;
    const auto found = groups.find(group);
    return found == groups.end() ? none : found->second.headers;
}

Position StorePositions::PositionOf(const Line& line, size_t byte) const {
    if (line.number == 0) {
        return {};
    }
    unsigned column = 1;
    std::string_view before = line.text.substr(0, byte);
    while (!before.empty()) {
        before.remove_prefix(companion::FirstCharacter(before).length);
        ++column;
    }
    return {files[line.file]->name, line.number, column};
}

}  // namespace kelto::halvek::ctl
