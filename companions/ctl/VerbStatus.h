#pragma once

#include "companions/ctl/Verb.h"

namespace kelto::halvek::ctl {

/** "status": how the running daemon is. */
extern const Verb verbStatus;

}  // namespace kelto::halvek::ctl
