#pragma once

#include "companions/common/Json.h"
#include "companions/ctl/StoreLocation.h"
#include "companions/ctl/StorePositions.h"

#include <optional>
#include <string>

namespace kelto::halvek::ctl {

/** What the JSON answers of all verbs have in common. */
class JsonAnswer {
public:
    /** Opens the outermost object, with the fields that tell what it is. */
    static void Begin(companion::Json& json, const char* verb);
    /** The same, and which settings it is about. */
    static void Begin(companion::Json& json, const char* verb, const StoreLocation& location);

    /** The fields "file" and "line", both null without a place. */
    static void AddPlace(companion::Json& json, const std::optional<Position>& place);
};

}  // namespace kelto::halvek::ctl
