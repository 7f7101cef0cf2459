#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kelto::halvek::bench {

/** The exception for a system call that has just failed. */
[[noreturn]] void ThrowSystemError(const std::string& what);

/**
 * Keeps the load off the processor of the programs that it drives: from now on this process has all processors but the
 * last, and the programs that it starts have the last. With a single one they share it.
 */
void SeparateProcessors();

/** A program under load. It dies with this object, or with this process. */
class Program {
public:
    /** Starts it. A command that cannot be run ends at once with a message. */
    explicit Program(const std::vector<std::string>& command);
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /** Nanoseconds of processor time that its threads have used, in user and kernel space. */
    int64_t ProcessorTime() const;

    bool HasEnded();

    /** Asks it to end and waits for that; throws if it ends with any status but 0. Below a tracer, the tracer ends with
     * it. */
    void Stop();

private:
    pid_t pid;
    int status = 0;
};

}  // namespace kelto::halvek::bench
