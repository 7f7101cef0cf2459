#pragma once

#include "event/Event.h"

#include <cstddef>
#include <string>

namespace kelto::core {
class Logger;
}

namespace kelto::halvek::source {

/**
 * The lines of a posted event, as far as they have been read. For one thread.
 *
 * What is posted must fit into an output pipe, or every pipe that it goes to costs a descriptor for good. So a block
 * that grows too large is given up, with one Error, and the rest of its lines count for nothing. That also bounds the
 * memory that a writer without an end can take.
 */
class PostedBlock {
public:
    /** In bytes, without the line break. */
    static constexpr size_t longestLine = 60'000;

    PostedBlock();

    /** Begins the next block. The type outlives its event: a block without a header is of the type of the one before.
     */
    void Begin();

    /** Takes one line in; false if it ends the block. An empty line throws std::out_of_range. */
    bool TakeLine(const std::string& line);

    /**
     * Gives the block up for a line that was too long to read. Whether such a line holds a line break that got lost
     * nobody knows, so the next header may begin a block of its own.
     */
    void TakeTooLongLine();

    /** Gives the block up if what is written of it, type and stamps included, would not fit into a pipe. */
    void CheckWrittenSize();

    bool IsGivenUp() const { return givenUp; }

    const std::string& GetEventType() const { return eventType; }
    Event::Properties& GetProperties() { return properties; }

private:
    void TakeHeader(const std::string& line);
    void TakeProperty(const std::string& line, size_t equals);
    void GiveUp();

    core::Logger& logger;
    Event::Properties properties;
    std::string eventType;
    /** Bytes of keys and values, those included that a repeated key has replaced. */
    size_t taken = 0;
    bool givenUp = false;
    bool headerBegins = false;
};

}  // namespace kelto::halvek::source
