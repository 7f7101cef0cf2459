#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/** The service manager, by its command systemctl on the PATH. */
class ServiceManager {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr const char* unit = "halvek.service";

    /**
     * Runs "systemctl" with these words. What it says goes to standard error.
     *
     * @return an empty text if it ended well, else what was wrong: "systemctl reload halvek.service ended with status
     * 1"
     * @throws Failure if it cannot be run, or does not end by then
     */
    static std::string Run(const std::vector<std::string>& words, Clock::time_point deadline);
};

}  // namespace kelto::halvek::ctl
