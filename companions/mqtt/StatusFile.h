#pragma once

#include "companions/common/UniqueFd.h"

#include <optional>
#include <string>

namespace kelto::halvek::mqtt {

/**
 * Where the running service writes how it gets on, for "halvek-mqtt status": a file in a folder in memory, which is
 * replaced as a whole, and a lock beside it that is free as soon as the service is gone, however it went. One thread.
 */
class StatusFile {
public:
    static constexpr const char* defaultFolder = "/run/halvek-mqtt";

    /** Of the service. Where the folder cannot be made there is no file, and nothing else is different. */
    explicit StatusFile(const std::string& folder);

    /** Replaces what is there. */
    void Write(const std::string& text);

    /** What the running service wrote last; nothing if none runs. */
    static std::optional<std::string> Read(const std::string& folder);

private:
    // Constant after construction.
    std::string path;
    companion::UniqueFd lock;
};

}  // namespace kelto::halvek::mqtt
