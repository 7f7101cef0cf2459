#pragma once

#include <string>
#include <string_view>

namespace kelto::companion {

/**
 * The text with control characters, noncharacters, and bytes that are no UTF-8, written as "\x1b": nothing in it steers
 * a terminal, begins a line of its own or is more than XML takes. Any thread.
 */
std::string Printable(std::string_view text);

}  // namespace kelto::companion
