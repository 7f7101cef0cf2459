#pragma once

#include <ctime>
#include <string>

namespace kelto::vcam {

/** The local time of day, "06:49:33.478". */
std::string FormatLocalTime(const timespec& time);

}  // namespace kelto::vcam
