#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace kelto::halvek::ctl {

/** One line of a recording: something that happened to the daemon, or to the recording. A plain value. */
struct RecordedInput {
    /** "posted" for an event that another process has posted, "fired" for one of the daemon's own sources; "alarm",
     * "alert" and "idle" for what the camera has said on the bus; "gap" where some are missing, "clock" where the clock
     * was set, "begin" and "end". */
    std::string kind;
    /** Milliseconds since 1970, as the clock said. */
    int64_t time = 0;
    /** Milliseconds since the boot. */
    int64_t sinceBoot = 0;
    std::string boot;
    uint64_t number = 0;
    /** Of "begin": whether it is recorded what the camera says on the bus. */
    bool hasBus = false;
    /** Of "idle": 0 when the head rests. */
    std::optional<int64_t> state = {};
    /** Of an event, or of what one is made of. */
    std::string type = {};
    std::map<std::string, std::string> properties = {};
    /** Of a gap: how many are missing. Of a clock that was set: by how many milliseconds. */
    int64_t amount = 0;

    /** As one JSON object, with a line break. */
    std::string Line() const;

    /** Reads what Line has made; nothing for anything else, a line that was cut off by a full disk for instance. Fields
     * that it does not know it passes over: a later version may have written them. */
    static std::optional<RecordedInput> Parse(std::string_view line);
};

}  // namespace kelto::halvek::ctl
