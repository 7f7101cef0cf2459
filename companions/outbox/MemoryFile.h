#pragma once

#include "companions/common/UniqueFd.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace kelto::halvek::outbox {

/** Files that nobody else sees, and that are gone with their last descriptor. Any thread. */
class MemoryFile {
public:
    /** A file with that in it, read from its beginning. Throws std::system_error. */
    static companion::UniqueFd Of(std::string_view text);

    /** Reads a descriptor to its end. Throws std::system_error, and std::length_error if there is more than that. */
    static std::string ReadAll(int source, size_t mostBytes);
};

}  // namespace kelto::halvek::outbox
