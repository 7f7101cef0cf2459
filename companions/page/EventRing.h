#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

namespace kelto::page {

/**
 * The last events for the browsers, as they go over the wire, each with an id that is one more than that of the event
 * before. One thread.
 */
class EventRing {
public:
    static constexpr size_t capacity = 1024;

    /** @param givenFirstId of the next event. Greater than every id of an earlier life: a browser that comes back
     *                 then is told that it has missed something. */
    explicit EventRing(uint64_t givenFirstId) : firstId(givenFirstId), nextId(givenFirstId) {}

    /** @param data one line */
    void Add(const std::string& name, const std::string& data);

    /** The id of the event that came last; before the first one, an id that stands for the beginning. */
    uint64_t LastId() const { return nextId - 1; }
    /** Whether everything behind this id is still here. */
    bool Reaches(uint64_t id) const { return id <= LastId() && LastId() - id <= events.size(); }
    /** How many have come behind this id; 0 if it is of another life, or of none. */
    uint64_t CountBehind(uint64_t id) const { return id + 1 >= firstId && id < nextId ? LastId() - id : 0; }
    /** The event with this id, which is here. */
    const std::string& Get(uint64_t id) const { return events[events.size() - (nextId - id)]; }

private:
    const uint64_t firstId;
    uint64_t nextId;
    std::deque<std::string> events;
};

}  // namespace kelto::page
