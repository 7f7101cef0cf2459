#pragma once

#include "kelto/core/LogLevel.h"
#include "kelto/core/StandardError.h"

#include <atomic>
#include <cstdarg>
#include <string_view>

namespace kelto::core {

/**
 * Where records go: standard error, or the journal when standard error is a connection to it.
 *
 * Write takes no lock, keeps errno, throws nothing and, for a record of up to a kilobyte, allocates nothing, so it may
 * be called in a signal handler. A longer one is cut to that if there is no memory.
 *
 * A record that does not fit into standard error (see StandardError) is dropped and counted; the next one that finds
 * room, or the end, tells how many. On standard error control characters are escaped, so that each record is known by
 * its beginning; the journal gets the text as it is.
 */
class LogOutput {
public:
    /** Looks at the environment to find out whether the service manager connected standard error to the journal. */
    LogOutput();

    /** Writes one record with a single system call. Line breaks at the end of the text are dropped. */
    void Write(LogLevel level, const char* loggerName, const char* format, va_list arguments);

    /** Drops all later records. */
    void Close();

private:
    void WriteToStandardError(LogLevel level, const char* loggerName, const char* format, va_list arguments);
    bool TellOfDropped();
    bool WriteLine(std::string_view line);

    const bool toJournal;
    StandardError standardError;
    std::atomic<bool> closed = false;
    std::atomic<unsigned> dropped = 0;
    /** Whether the last line that was begun has found no room for its end. */
    std::atomic<bool> midLine = false;
};

}  // namespace kelto::core
