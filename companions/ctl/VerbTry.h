#pragma once

#include "companions/ctl/Verb.h"

namespace kelto::halvek::ctl {

/** "try": whether one handler could act, and its action if that is asked for. */
extern const Verb verbTry;

}  // namespace kelto::halvek::ctl
