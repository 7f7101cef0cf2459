#pragma once

#include <cstddef>
#include <string>

namespace kelto::companion {

/**
 * Reads what a descriptor holds up to its end, interrupted or not. Any thread; blocks as long as the descriptor does.
 *
 * @param content what was read is put behind it, also that before a failure
 * @param most    bytes that the content may then have
 * @return 0, or the error number of the read that failed; EFBIG as soon as the content has more than it may
 */
int ReadToEnd(int descriptor, std::string& content, size_t most);

}  // namespace kelto::companion
