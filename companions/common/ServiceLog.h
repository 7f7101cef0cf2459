#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kelto::companion {

/**
 * The records of a service, on standard error: for the journal with their level in front, for a person with the
 * program's name.
 *
 * A record never waits for whoever reads: a service that owns an output pipe must go on reading it. What finds no room
 * is lost, counted, and told with the next one that does. One thread at a time.
 */
class ServiceLog {
public:
    /** As the journal numbers them. */
    enum class Level { Error = 3, Warning = 4, Notice = 5, Information = 6 };

    explicit ServiceLog(std::string_view programName);

    /** Writes one line. Control characters in it are escaped, and it is cut where it would not be written at once. */
    void Write(Level level, std::string_view text);

    void Error(std::string_view text) { Write(Level::Error, text); }
    void Warning(std::string_view text) { Write(Level::Warning, text); }
    void Notice(std::string_view text) { Write(Level::Notice, text); }
    void Information(std::string_view text) { Write(Level::Information, text); }

private:
    bool TryToWrite(Level level, std::string_view text) const;

    // Constant after construction.
    std::string program;
    bool isJournal;

    uint64_t lost = 0;
};

}  // namespace kelto::companion
