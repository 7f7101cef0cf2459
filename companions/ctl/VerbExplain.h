#pragma once

#include "companions/ctl/Verb.h"

namespace kelto::halvek::ctl {

/** "explain": which handlers act on an event, and why not the others. */
extern const Verb verbExplain;

}  // namespace kelto::halvek::ctl
