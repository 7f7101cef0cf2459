#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/** When the guard has restarted the service in the last hour, in a file that goes with the boot. One process at a time.
 */
class RestartLog {
public:
    static constexpr const char* defaultFolder = "/run/halvekctl";
    /** In the last hour. */
    static constexpr size_t most = 4;

    /** Reads it; one that is not there or cannot be read is empty. */
    explicit RestartLog(const std::string& folder);

    bool IsExhausted() const { return times.size() >= most; }

    /** Adds now. Throws Failure if that cannot be written: then there must be no restart, or there would be no end. */
    void Add();

private:
    std::string path;
    /** Seconds since the boot, the oldest first. */
    std::vector<int64_t> times;
};

}  // namespace kelto::halvek::ctl
