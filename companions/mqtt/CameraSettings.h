#pragma once

#include "companions/mqtt/CameraFacts.h"

#include <string>

namespace kelto::halvek::mqtt {

/**
 * What the daemon's settings say of a camera's events, as far as this program may read them. It decides nothing: what
 * it misses is known as soon as the first such event comes. Any thread.
 */
class CameraSettings {
public:
    /** Where the daemon reads them: KELTO_SETTINGS, else its default. */
    static std::string Path();

    /** Of a file, or of the files *.ini in a folder. What cannot be read is taken for empty. */
    static CameraFacts Read(const std::string& path);
};

}  // namespace kelto::halvek::mqtt
