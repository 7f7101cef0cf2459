#pragma once

#include "env/SettingsKeys.h"

#include <functional>
#include <string>

namespace kelto::halvek::handler {

/** The group in which the camera says where its pictures are. */
constexpr const char* snapshotGroup = "Video/Quickview";
constexpr SettingsKeys snapshotKeys{TextKey{.name = "SnapshotPath", .required = true}};

/** Tells where the camera keeps its latest snapshot, as LookUpSnapshotPath does. */
using SnapshotLookUp = std::function<std::string()>;

/**
 * Looks up the file in which the camera keeps its latest snapshot, in the settings as they are now.
 *
 * @return the full path; empty if the settings name an empty one
 * @throws kelto::osa::Exception if the settings cannot be read or do not name the file
 */
std::string LookUpSnapshotPath();

}  // namespace kelto::halvek::handler
