#pragma once

#include <cstdint>
#include <string>

namespace kelto::halvek::handler {

/**
 * Reads a size in bytes, a whole number and one unit letter: k, m, g, t in either case, powers of 1024.
 *
 * @return 0 for everything else: a number without a unit, "1.5G", "10kB", a negative number, one that does not fit into
 * 31 bits
 */
uint64_t ParseSizeWithSuffix(const std::string& text);

}  // namespace kelto::halvek::handler
