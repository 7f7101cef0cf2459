#pragma once

#include <string>
#include <string_view>

namespace kelto::vcam {

/** A text from elsewhere as a terminal can take it: control characters as "\x0a". */
std::string OneLine(std::string_view text);

}  // namespace kelto::vcam
