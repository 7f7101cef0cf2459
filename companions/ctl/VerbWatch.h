#pragma once

#include "companions/ctl/Verb.h"

namespace kelto::halvek::ctl {

/** "watch": shows events as they come. */
extern const Verb verbWatch;

}  // namespace kelto::halvek::ctl
