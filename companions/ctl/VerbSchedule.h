#pragma once

#include "companions/ctl/Verb.h"

namespace kelto::halvek::ctl {

/** "schedule": when handlers let events through. */
extern const Verb verbSchedule;

}  // namespace kelto::halvek::ctl
