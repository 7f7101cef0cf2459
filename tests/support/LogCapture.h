#pragma once

#include "kelto/core/LogLevel.h"

#include <chrono>
#include <string>
#include <vector>

namespace kelto::test {

/** One record as it was written: "<time> <level> <logger>: <text>". */
struct LogRecord {
    std::string time;
    std::string level;
    std::string logger;
    std::string text;
    size_t begin = 0;  // bytes in front of it

    /** "Debug halvek: text" */
    std::string ToString() const { return level + " " + logger + ": " + text; }
};

/**
 * Takes what the process writes to standard error for the length of a scope, with all loggers at one level. A line that
 * does not look like a record's beginning belongs to the record before it; the four blanks that stand in front of a
 * text's second line and those behind it are taken off.
 */
class LogCapture {
public:
    explicit LogCapture(core::LogLevel level = core::LogLevel::Trace);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /** All that was written so far, as it stands, from a byte on. */
    std::string Text(size_t from = 0) const;

    /** All records so far. */
    std::vector<LogRecord> Records() const;

    /** All records so far as "Debug halvek: text". */
    std::vector<std::string> Lines() const;

    /** How many records "Debug halvek: text" there are. */
    size_t Count(const std::string& line) const;

    /** Whether there is such a record. */
    bool Has(const std::string& line) const { return Count(line) > 0; }

    /** Waits for such a record; false if none came within the deadline. */
    bool WaitFor(const std::string& line, size_t count = 1) const;

    /** Forgets what was written so far. */
    void Clear();

private:
    int file;
    int savedStandardError;
};

}  // namespace kelto::test
