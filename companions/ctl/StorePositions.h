#pragma once

#include "companions/ctl/Store.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelto::halvek::ctl {

/** A place in the settings as people name it. */
struct Position {
    std::string file;
    /** From 1; 0 where the settings are no files. */
    unsigned line = 0;
    /** In characters, from 1; a byte that is no UTF-8 counts as one. 0 as the line. */
    unsigned column = 0;

    /** Whether it can be named; without a file there are the group and the key. */
    bool IsInAFile() const { return line != 0; }

    bool operator==(const Position&) const = default;
};

/**
 * Where things stand in the settings: each line of each file, taken apart as the store takes it.
 *
 * It knows places and texts only and decides nothing: what a value means, and whether a group is known, say the
 * daemon's own classes. Unlike the store it goes on behind a malformed line. The files are added in the order in which
 * the store reads them, so that the last occurrence of a key is the one that holds. Filled by one thread, then read by
 * any number. The texts that it gives out live as long as it does.
 */
class StorePositions {
public:
    enum class Kind {
        Blank,
        Comment,
        /** Opens or continues a group. */
        Header,
        /** A key and its value in a group. */
        Entry,
        /** A line that the store would take, but for the group that it should stand in. */
        KeyBeforeGroup,
        /** Anything else, which costs the whole fetch. */
        Malformed,
    };

    /** One line. Columns count bytes from 0; PositionOf makes them what people see. */
    struct Line {
        Kind kind;
        uint32_t file;
        /** From 1; 0 where the settings are no files. */
        uint32_t number;
        uint32_t keyByte = 0;
        uint32_t valueByte = 0;
        /** The line as it stands, with blanks, without the line break. */
        std::string_view text = {};
        /** The group that it opens or stands in; empty before the first one. */
        std::string_view group = {};
        std::string_view key = {};
        std::string_view value = {};
    };

    using Lines = std::vector<const Line*>;

    StorePositions() = default;
    /** Of all files of a store. */
    explicit StorePositions(const Store& store);
    StorePositions(StorePositions&&) = default;
    StorePositions& operator=(StorePositions&&) = default;

    /** Where a store begins. */
    static Position BeginOf(const Store& store);

    /** Takes a further file. @param name what its positions call it */
    void Add(std::string name, std::string text);

    /** Where the value that holds has its key; nothing if there is no such key. An empty key stands for the group. */
    std::optional<Position> Find(std::string_view group, std::string_view key) const;

    /** Where the group begins for the first time; nothing if there is no such group. */
    std::optional<Position> Find(std::string_view group) const;

    /** As Find, of the value itself; behind the "=" if it is empty. */
    std::optional<Position> FindValue(std::string_view group, std::string_view key) const;

    /** All lines with that key in that group, in the order in which they are read. */
    const Lines& Entries(std::string_view group, std::string_view key) const;

    /** All lines that open or continue the group. */
    const Lines& Headers(std::string_view group) const;

    /** All lines of all files. */
    const std::deque<Line>& AllLines() const { return lines; }

    /** The first line that the store refuses; null if it takes them all. */
    const Line* FirstMalformed() const { return firstMalformed; }

    size_t FileCount() const { return files.size(); }
    const std::string& FileName(size_t file) const { return files[file]->name; }
    std::string_view FileText(size_t file) const { return files[file]->text; }

    /** A place in a line. @param byte counts from 0 */
    Position PositionOf(const Line& line, size_t byte) const;
    Position KeyPosition(const Line& line) const { return PositionOf(line, line.keyByte); }
    Position ValuePosition(const Line& line) const { return PositionOf(line, line.valueByte); }

private:
    struct File {
        std::string name;
        std::string text;
    };

    struct Group {
        Lines headers;
        std::map<std::string_view, Lines> entries;
    };

    /** Takes groups that stand in no file, in the order of their names. */
    void Add(const core::IniFile& fetched);
    void Take(const Line& line);
    const Line* Holding(std::string_view group, std::string_view key) const;

    // Behind pointers: the lines look into the texts.
    std::vector<std::unique_ptr<const File>> files;
    // Never moves a line, of which the groups have pointers.
    std::deque<Line> lines;
    std::map<std::string_view, Group> groups;
    const Line* firstMalformed = nullptr;
};

}  // namespace kelto::halvek::ctl
