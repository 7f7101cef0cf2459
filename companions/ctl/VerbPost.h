#pragma once

#include "companions/ctl/Verb.h"

namespace kelto::halvek::ctl {

/** "post": puts events into the daemon's event pipe. */
extern const Verb verbPost;

}  // namespace kelto::halvek::ctl
