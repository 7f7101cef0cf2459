#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kelto::inet {

/**
 * The pieces of a list of addresses, between "," and ";" outside of quotes and without blanks around them; empty ones
 * are left out. Whether a piece is an address is not looked at.
 */
std::vector<std::string> SplitAddresses(std::string_view list);

}  // namespace kelto::inet
