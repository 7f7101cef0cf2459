#pragma once

#include "companions/mqtt/Finding.h"
#include "companions/mqtt/Settings.h"

#include <string>
#include <vector>

namespace kelto::halvek::mqtt {

/** A configuration file as it was read, with all that is wrong with it. A plain value. */
struct Configuration {
    /** Whether what the service manager hands over must be there. Outside of the service it is not to be seen. */
    enum class Secrets { Wanted, WantedIfThere };

    std::string path;
    Settings settings;
    /** In the order of their places. */
    std::vector<Finding> findings;

    /** @throws std::system_error that names the path, if the file cannot be read */
    static Configuration Load(const std::string& path, Secrets secrets);

    bool HasErrors() const;

    /** FILE:LINE:COLUMN: error: text */
    std::string Text(const Finding& finding) const;
};

}  // namespace kelto::halvek::mqtt
