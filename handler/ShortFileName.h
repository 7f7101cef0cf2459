#pragma once

#include <string>

namespace kelto::halvek::handler {

/**
 * A path for a file system that refuses the one given: the file's name cut to 8 characters before its extension, which
 * stays, and every ":" of the whole path an underscore.
 *
 * @return empty if it cannot be made. Throws nothing.
 */
std::string MakeShortFileName(const std::string& path) noexcept;

}  // namespace kelto::halvek::handler
