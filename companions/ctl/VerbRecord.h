#pragma once

#include "companions/ctl/Verb.h"

namespace kelto::halvek::ctl {

/** "record": keeps what happens to the daemon in a file. */
extern const Verb verbRecord;

}  // namespace kelto::halvek::ctl
