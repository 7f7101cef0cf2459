#include "companions/ctl/listen/EventBacklog.h"

#include <utility>

namespace kelto::halvek::ctl {

namespace {

constexpr size_t largestPiece = 65536;

}  // namespace

EventBacklog::EventBacklog(size_t mostBytes, Taker eventTaker, Dropper eventDropper)
    : most(mostBytes), taker(std::move(eventTaker)), dropper(std::move(eventDropper)) {}

void EventBacklog::TakeLeftOver(std::string_view bytes, const ReadTime& time) {
    currentTime = time;
    reader.TakeLeftOver(bytes);
}

void EventBacklog::Add(std::string_view bytes, const ReadTime& time, Milliseconds now) {
    if (pieces.empty() || pieces.back().time != time || pieces.back().bytes.size() + bytes.size() > largestPiece) {
        pieces.push_back({time, {}});
    }
    pieces.back().bytes.append(bytes);
    size += bytes.size();
    if (size <= most) {
        return;
    }
    // Half of the room at once, so that one notice tells of many.
    isDropping = true;
    while (size > most / 2) {
        ReadOldest(now);
    }
    isDropping = false;
}

void EventBacklog::TakeSome(Milliseconds now) {
    if (!pieces.empty()) {
        ReadOldest(now);
    }
}

void EventBacklog::CloseOverdue(const ReadTime& time, Milliseconds now) {
    currentTime = time;
    reader.CloseOverdue(now);
}

void EventBacklog::ReadOldest(Milliseconds now) {
    const Piece oldest = std::move(pieces.front());
    pieces.pop_front();
    size -= oldest.bytes.size();
    currentTime = oldest.time;
    reader.Take(oldest.bytes, now);
}

void EventBacklog::Receive(const companion::ReceivedEvent& event) {
    if (isDropping) {
        dropper(event);
    } else {
        taker(event, currentTime);
    }
}

}  // namespace kelto::halvek::ctl
