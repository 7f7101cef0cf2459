#pragma once

#include "kelto/core/IniFile.h"

#include <optional>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/**
 * The settings as they stand on disk, read by the daemon's own code once it is sure that reading ends: a pipe, a device
 * or a hundred megabytes are refused. Where the camera's platform keeps them otherwise, as it hands them out. A plain
 * value.
 */
struct Store {
    struct File {
        std::string path;
        std::string text;
    };

    /** Bytes of all files together. */
    static constexpr size_t mostBytes = size_t{64} << 20U;

    std::string path;
    /** Where there are no files one without a path, with all that was fetched. */
    std::vector<File> files;
    /** Of a platform whose settings are no files: all groups. */
    std::optional<core::IniFile> fetched = {};

    /** Reads what the environment's KELTO_SETTINGS names, see StoreLocation::Use. Throws Failure. */
    static Store Read(const std::string& path);

    /** As the daemon would. Throws kelto::osa::Exception where the daemon refuses them. */
    core::IniFile Parse() const;

    /** Whether the settings are still these. */
    bool Holds() const;
};

}  // namespace kelto::halvek::ctl
