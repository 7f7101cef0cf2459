#pragma once

#include "companions/ctl/Verb.h"

namespace kelto::halvek::ctl {

/** "reload": has the daemon take new settings, and tells whether it did. */
extern const Verb verbReload;

}  // namespace kelto::halvek::ctl
