#pragma once

#include <string>

namespace kelto::halvek::handler {

/**
 * Looks up the file in which the camera keeps its latest snapshot, in the settings as they are now.
 *
 * @return the full path; empty if the settings name an empty one
 * @throws kelto::osa::Exception if the settings cannot be read or do not name the file
 */
std::string LookUpSnapshotPath();

}  // namespace kelto::halvek::handler
