#pragma once

#include "camera/command/Words.h"

namespace kelto::vcam {

/** The command "alert": has the camera send an alert as an analytics program does. */
void RaiseAlert(Words& words);

}  // namespace kelto::vcam
