#pragma once

#include <functional>
#include <string>

namespace kelto::halvek::ctl {

/**
 * A task in a process of its own, so that its crash, its hang and what it does to the process cost the caller nothing.
 *
 * In the child, standard error is a file in memory, no core is dumped and the end of the caller is the end of it. For a
 * process without other threads.
 */
class ChildProcess {
public:
    /** Makes the child's answer. What it throws becomes a Failure of the caller's. */
    using Task = std::function<std::string()>;

    static constexpr int defaultLimitMs = 5000;

    /**
     * Runs the task and returns its answer.
     *
     * @throws Failure for what the task throws, and if it crashes, or takes longer, with the last line that it wrote to
     * standard error
     */
    static std::string Run(const Task& task, int limitMs = defaultLimitMs);
};

}  // namespace kelto::halvek::ctl
