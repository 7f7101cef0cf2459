#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace kelto::page {

class EventRing;

/**
 * What one browser is sent: the events of the ring behind the one that it saw last, and a comment now and then, by
 * which one that has left is noticed. A browser whose events are gone from the ring gets "reset", with the id of the
 * event that came last, and goes on behind it. One thread.
 */
class EventStream {
public:
    /** @param cursor the id that the browser saw last, as it says itself; empty if it is new */
    EventStream(const EventRing& eventRing, const std::string& cursor);

    /** Writes what is to be sent next; 0 if there is nothing. */
    size_t Read(std::span<char> buffer);

    void RequestComment() { isCommentDue = true; }

private:
    void Refill();
    void Reset(uint64_t missed);

    const EventRing& ring;
    uint64_t lastSent;
    bool isCommentDue = false;
    std::string pending;
    size_t written = 0;  ///< of what is pending
};

}  // namespace kelto::page
