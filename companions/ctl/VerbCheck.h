#pragma once

#include "companions/ctl/Verb.h"

namespace kelto::halvek::ctl {

/** "check": what is wrong with the settings. */
extern const Verb verbCheck;

}  // namespace kelto::halvek::ctl
