#pragma once

#include "camera/command/Words.h"

namespace kelto::vcam {

/** The command "actions": prints what the camera's services were asked to do, oldest first, or has it forgotten. */
void ShowActions(Words& words);

}  // namespace kelto::vcam
