#pragma once

#include "companions/ctl/Verb.h"

namespace kelto::halvek::ctl {

/** "guard": restarts a daemon that is about to have no descriptors left. */
extern const Verb verbGuard;

}  // namespace kelto::halvek::ctl
