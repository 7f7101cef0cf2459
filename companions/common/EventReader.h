#pragma once

#include "companions/common/ReceivedEvent.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kelto::companion {

/**
 * Makes events of the bytes of an output pipe.
 *
 * The daemon escapes nothing, so a value with a line break in it can end a block, or begin another. Every block is
 * taken as hostile: it is never larger than largestBlock, has never more than mostProperties, and holds no memory
 * beyond that. A header inside a block closes the block and begins the next one. A block that does not end is closed
 * after a second. What stands outside of blocks, and lines that are neither header, property nor end, are dropped.
 *
 * Times are those of any clock that never steps back; whoever reads chooses it. One thread at a time.
 */
class EventReader {
public:
    using Milliseconds = std::chrono::milliseconds;
    /** Gets each event, which lives for the call only. What it throws leaves the reader, which must not be used then.
     */
    using Taker = std::function<void(const ReceivedEvent& event)>;

    /** In bytes, the header and all line breaks included. */
    static constexpr size_t largestBlock = 65536;
    static constexpr size_t mostProperties = 256;
    /** How long a block may stay open. */
    static constexpr Milliseconds patience{1000};

    explicit EventReader(Taker eventTaker) : taker(std::move(eventTaker)) {}

    /** Takes what has been read, in pieces of any size. */
    void Take(std::string_view bytes, Milliseconds now);

    /**
     * Takes all that an earlier process left in its pipe, before anything else. Its events are stale; a block that has
     * no end is torn, and dropped.
     */
    void TakeLeftOver(std::string_view bytes);

    /** When the open block has waited for long enough; nothing while none is open. */
    std::optional<Milliseconds> Deadline() const { return deadline; }

    /**
     * Closes the block that has been open for too long, if there is one. To be called when the pipe has been read
     * empty: what waits in it may hold the end of the block.
     */
    void CloseOverdue(Milliseconds now);

    /** How many blocks of left-overs had no end. */
    uint64_t TornBlocks() const { return tornBlocks; }

private:
    void TakeLine(std::string_view line);
    void TakeUnfinishedLine();
    void TakeHeader(std::string_view line);
    void TakeProperty(std::string_view line, size_t equals);
    void KeepUnfinishedLine(std::string_view rest);
    bool HasRoomFor(std::string_view line);
    void SetProperty(std::string key, std::string value);
    std::string Text(std::string_view bytes);
    void CloseBlock(bool isFinished);

    // Constant after construction.
    Taker taker;

    ReceivedEvent event;
    bool isOpen = false;
    bool isReadingLeftOver = false;
    /** The properties of the open block have come in byte order so far. */
    bool isInOrder = true;
    /** Of the open block, so far. */
    size_t blockSize = 0;
    /** The front of a line whose end has not come yet; at most largestBlock bytes of it. */
    std::string unfinishedLine;
    bool isLineTooLong = false;
    std::optional<Milliseconds> deadline;
    uint64_t tornBlocks = 0;
};

}  // namespace kelto::companion
