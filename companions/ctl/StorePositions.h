#pragma once

#include "companions/ctl/Store.h"

#include <map>
#include <optional>
#include <string>
#include <utility>

namespace kelto::halvek::ctl {

/** A place in a file; line and column count from 1. */
struct Position {
    std::string file;
    unsigned line;
    unsigned column;
};

/** Where groups and keys stand. It decides nothing. */
class StorePositions {
public:
    explicit StorePositions(const Store& store);

    /** The line that counts: of a key the last one that sets it, of a group, which an empty key stands for, its first
     * header. */
    std::optional<Position> Find(const std::string& group, const std::string& key = {}) const;

private:
    std::map<std::pair<std::string, std::string>, Position> positions;
};

}  // namespace kelto::halvek::ctl
