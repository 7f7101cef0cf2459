#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace kelto::halvek::ctl {

/** The daemon's open descriptors by what they are for. A plain value. */
struct DaemonDescriptors {
    int64_t open = 0;
    /** Of the event pipe: one for each configuration. */
    int64_t eventPipe = 0;
    /** Of output pipes: one for each failed or short write. */
    int64_t outputPipes = 0;
    /** Connections to the message bus. */
    int64_t bus = 0;
    /** All others. */
    int64_t rest = 0;
    /** The output pipes of failed writes by their paths; those that were removed have " (deleted)" behind them. */
    std::map<std::string, int64_t> lostByPipe;
    /** The path of the event pipe that it reads; empty if there is none. */
    std::string eventPipePath;

    /** Nothing if this user may not see them. */
    static std::optional<DaemonDescriptors> Of(int pid);

    /** How many configurations and failed writes there can be altogether. */
    int64_t Budget(int64_t limit) const;

    /** How many more of them there can be; never below 0. */
    int64_t Left(int64_t limit) const;
};

}  // namespace kelto::halvek::ctl
