#pragma once

#include <cstddef>
#include <string>

namespace kelto::halvek::handler {

/**
 * Runs a command in the shell and reads the beginning of what it prints. Returns when the command has ended; signals
 * that interrupt the calling thread meanwhile do not cut the text. What the command says to standard error is in the
 * daemon's.
 *
 * @param limit how many bytes are read at most; what the command prints beyond them is not waited for
 * @throws kelto::osa::Exception if the command cannot be started or its output not be read
 */
std::string ReadCommandOutput(const std::string& command, size_t limit);

}  // namespace kelto::halvek::handler
