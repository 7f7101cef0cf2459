#pragma once

#include "kelto/settings/SettingsStore.h"

#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/**
 * The settings as they stand on disk, read by the daemon's own code once it is sure that reading ends: a pipe, a device
 * or a hundred megabytes are refused. A plain value.
 */
struct Store {
    using File = settings::SettingsStore::File;

    /** Bytes of all files together. */
    static constexpr size_t mostBytes = size_t{64} << 20U;

    std::string path;
    std::vector<File> files;

    /** Reads what the environment's KELTO_SETTINGS names, see StoreLocation::Use. Throws Failure. */
    static Store Read(const std::string& path);
};

}  // namespace kelto::halvek::ctl
