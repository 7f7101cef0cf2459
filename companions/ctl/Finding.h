#pragma once

#include "companions/ctl/Catalogue.h"
#include "companions/ctl/StorePositions.h"

#include <optional>
#include <string>

namespace kelto::halvek::ctl {

/** Something about the settings that somebody should know. */
struct Finding {
    const CatalogueEntry* entry;
    Severity severity;
    Position position;
    std::string group = {};
    /** Empty where the finding is about a group or a file. */
    std::string key = {};
    std::string text = {};
    /** What to write instead, where that can be said. */
    std::optional<std::string> fix = std::nullopt;
    /** The record of the daemon's that comes of it, without time, level and logger. */
    std::optional<std::string> foretells = std::nullopt;
};

}  // namespace kelto::halvek::ctl
