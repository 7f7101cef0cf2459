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

    /** Processor time is what a busy machine does not lengthen; the other limit is for a task that waits. */
    struct Limits {
        unsigned processorSeconds = 5;
        int waitMs = 30000;
    };

    /**
     * Runs the task and returns its answer.
     *
     * @throws Failure for what the task throws, and if it crashes, or goes beyond a limit, with the last line that it
     * wrote to standard error
     */
    static std::string Run(const Task& task, const Limits& limits);
    static std::string Run(const Task& task) { return Run(task, {}); }
};

}  // namespace kelto::halvek::ctl
