#pragma once

#include "companions/ctl/Verb.h"

namespace kelto::halvek::ctl {

/** "replay": what other settings would have done of what was recorded. */
extern const Verb verbReplay;

}  // namespace kelto::halvek::ctl
