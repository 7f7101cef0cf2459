#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/** A named pipe and who has it open, as far as this user may see that. A plain value. */
struct PipeState {
    struct Holder {
        int pid = 0;
        std::string name;
    };

    std::string path;
    /** As ls shows it: "prw--w----". */
    std::string mode;
    std::string owner;
    std::string group;
    /** Nothing if this user may not open the pipe, or if nobody has it open. */
    std::optional<int64_t> bytesWaiting;
    std::optional<int64_t> capacity;
    /** Large events leave pages half empty, so that a pipe is full with fewer bytes than its capacity. */
    bool hasNoPageLeft = false;
    /** Who has it open for reading, the one that was left out but. */
    std::vector<Holder> readers;
    /** There are processes whose descriptors are hidden. */
    bool hasHidden = false;

    /** Whether the next event finds no room, as far as that can be told; false where it is hidden. */
    bool IsFull() const;

    /** Nothing if it is no named pipe, or not there. @param leftOut a process that is no reader: the daemon */
    static std::optional<PipeState> Of(const std::string& path, int leftOut);
};

}  // namespace kelto::halvek::ctl
