#include "companions/page/EventStream.h"

#include "companions/page/EventRing.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace kelto::page {

namespace {

// How long a browser waits before it comes back.
constexpr const char* beginning = "retry: 1000\n\n";
constexpr const char* comment = ": still here\n\n";

std::optional<uint64_t> NumberIn(std::string_view text) {
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.begin(), text.end(), number);
    return error == std::errc() && end == text.end() ? std::optional(number) : std::nullopt;
}

}  // namespace

EventStream::EventStream(const EventRing& eventRing, const std::string& cursor)
    : ring(eventRing), lastSent(ring.LastId()), pending(beginning) {
    if (cursor.empty()) {
        return;
    }
    const std::optional<uint64_t> id = NumberIn(cursor);
    if (id && ring.Reaches(*id)) {
        lastSent = *id;
    } else {
        Reset(ring.CountBehind(id.value_or(0)));
    }
}

size_t EventStream::Read(std::span<char> buffer) {
    if (written == pending.size()) {
        Refill();
    }
    const size_t length = std::min(buffer.size(), pending.size() - written);
    std::copy_n(pending.begin() + static_cast<std::ptrdiff_t>(written), length, buffer.begin());
    written += length;
    return length;
}

void EventStream::Refill() {
    pending.clear();
    written = 0;
    if (!ring.Reaches(lastSent)) {
        Reset(ring.CountBehind(lastSent));
    } else if (lastSent < ring.LastId()) {
        pending = ring.Get(++lastSent);
    } else if (isCommentDue) {
        pending = comment;
    }
    isCommentDue = false;
}

void EventStream::Reset(uint64_t missed) {
    lastSent = ring.LastId();
    pending +=
        "id: " + std::to_string(lastSent) + "\nevent: reset\ndata: {\"missed\":" + std::to_string(missed) + "}\n\n";
}

}  // namespace kelto::page
