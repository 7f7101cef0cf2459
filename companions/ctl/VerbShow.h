#pragma once

#include "companions/ctl/Verb.h"

namespace kelto::halvek::ctl {

/** "show": which source leads to which handler, and what that acts on. */
extern const Verb verbShow;

}  // namespace kelto::halvek::ctl
