#pragma once

#include "companions/ctl/listen/ReadTime.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace kelto::halvek::ctl {

/** Something that the camera has said on the message bus, and when that was heard. A plain value. */
struct CameraSignal {
    /** "alarm", "alert" or "idle". */
    std::string kind;
    /** The type of the event that a source makes of it, and its properties; none of "idle". */
    std::string type = {};
    std::map<std::string, std::string> properties = {};
    /** Of "idle": 0 when the head has come to rest. */
    std::optional<int64_t> state = {};
    ReadTime time = {};
};

}  // namespace kelto::halvek::ctl
