#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kelto::halvek::bench {

/** Length of an event as it is posted. */
constexpr size_t eventSize = 60;

/** Length of its block as it comes out again, with what the daemon adds. */
size_t BlockSize();

/** Appends the event of that number, as a process would post it. */
void AppendEvent(std::string& text, uint64_t number);

/**
 * Looks at all that comes out of the output pipe, to the byte.
 *
 * Only the digits of the time stamps are free; numbers must follow one another from 0. For one thread.
 */
class BlockChecker {
public:
    /** Takes the next piece of output, cut anywhere. Throws at the first block that is not the next event's. */
    void Take(std::string_view piece);

    /** Throws unless exactly the events up to here have come out, and nothing more. */
    void ExpectEnd(uint64_t events) const;

    /** The events whose blocks are complete. */
    uint64_t Received() const { return received; }

private:
    void Check(std::string_view block) const;

    uint64_t received = 0;
    std::string rest;
};

}  // namespace kelto::halvek::bench
