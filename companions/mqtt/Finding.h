#pragma once

#include "companions/common/ConfigFile.h"

#include <string>

namespace kelto::halvek::mqtt {

/** Something that is wrong, or odd, in the configuration. */
struct Finding {
    bool isError = true;
    companion::ConfigPlace place;
    std::string text;
};

}  // namespace kelto::halvek::mqtt
