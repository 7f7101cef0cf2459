#pragma once

#include "kelto/core/LogLevel.h"

#include <atomic>
#include <cstdarg>

namespace kelto::core {

/**
 * Where records go: standard error, or the journal when standard error is a connection to it.
 *
 * Write takes no lock, keeps errno and, for a record of up to a kilobyte, allocates nothing, so it may be called in a
 * signal handler.
 */
class LogOutput {
public:
    /** Looks at the environment to find out whether the service manager connected standard error to the journal. */
    LogOutput();

    /** Writes one record with a single system call. Line breaks at the end of the text are dropped. */
    void Write(LogLevel level, const char* loggerName, const char* format, va_list arguments) const;

    /** Drops all later records. */
    void Close() { closed.store(true, std::memory_order_relaxed); }

private:
    const bool toJournal;
    std::atomic<bool> closed = false;
};

}  // namespace kelto::core
