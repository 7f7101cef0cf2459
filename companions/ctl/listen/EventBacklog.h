#pragma once

#include "companions/common/EventReader.h"
#include "companions/ctl/listen/ReadTime.h"

#include <cstddef>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace kelto::halvek::ctl {

/**
 * What has been read from an output pipe and nobody has looked at yet, as bytes: to put them aside costs a hundredth of
 * what it costs to make lines of them. Beyond its room the oldest events are dropped, each of them told. One thread at
 * a time.
 */
class EventBacklog {
public:
    using Milliseconds = companion::EventReader::Milliseconds;
    using Taker = std::function<void(const companion::ReceivedEvent& event, const ReadTime& time)>;
    using Dropper = std::function<void(const companion::ReceivedEvent& event)>;

    /** @param mostBytes the room */
    EventBacklog(size_t mostBytes, Taker eventTaker, Dropper eventDropper);

    /** What an earlier reader of the pipe has left; before anything else, and taken at once. */
    void TakeLeftOver(std::string_view bytes, const ReadTime& time);

    /** Puts bytes aside. @param now by a clock that never steps back, here and below */
    void Add(std::string_view bytes, const ReadTime& time, Milliseconds now);

    bool IsEmpty() const { return pieces.empty(); }

    /** Hands on the oldest events: those of at most 64 KiB. */
    void TakeSome(Milliseconds now);

    /** See companion::EventReader: for a backlog that is empty, and a pipe that is too. */
    std::optional<Milliseconds> Deadline() const { return reader.Deadline(); }
    void CloseOverdue(const ReadTime& time, Milliseconds now);

private:
    struct Piece {
        ReadTime time;
        std::string bytes;
    };

    void ReadOldest(Milliseconds now);
    void Receive(const companion::ReceivedEvent& event);

    // Constant after construction.
    size_t most;
    Taker taker;
    Dropper dropper;

    std::deque<Piece> pieces;
    size_t size = 0;
    companion::EventReader reader{[this](const companion::ReceivedEvent& event) { Receive(event); }};
    bool isDropping = false;
    /** Of what the reader is reading. */
    ReadTime currentTime;
};

}  // namespace kelto::halvek::ctl
