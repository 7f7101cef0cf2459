#pragma once

#include <cstddef>
#include <string>

namespace kelto::halvek::ctl {

/**
 * Reads a file that the command line names. What is no plain file is refused and not waited for. Any thread.
 *
 * @param most bytes that it may have
 * @throws Failure that names the file
 */
std::string ReadPlainFile(const std::string& path, size_t most);

}  // namespace kelto::halvek::ctl
