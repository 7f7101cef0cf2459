#pragma once

#include "companions/common/ConfigFile.h"

#include <string>

namespace kelto::companion::rules {

/** Something that is wrong with a file of rules. */
struct RuleFinding {
    /** As HK8005: it stays, and is never used for anything else. */
    const char* id;
    ConfigPlace place;
    std::string text;
};

}  // namespace kelto::companion::rules
