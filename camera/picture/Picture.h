#pragma once

#include "camera/picture/Image.h"

#include <ctime>

namespace kelto::vcam {

/**
 * What the camera sees: coloured columns that pass by as the head turns, the time of day, and a bar that grows with the
 * seconds of the minute.
 *
 * @param degrees where the head is
 * @param now     local time
 */
Image PaintPicture(double degrees, const tm& now);

}  // namespace kelto::vcam
