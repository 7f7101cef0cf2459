#pragma once

#include "companions/rules/Rule.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kelto::companion::rules {

/** What an event leaves for a post that comes later. */
struct Remembered {
    /** Those of the rule's `taken` that the event had. */
    std::vector<std::pair<std::string, std::string>> properties;
    /** The event's own chain. */
    std::string chain;

    size_t Size() const;
};

/** What a rule knows about the events of one group: those that have the same values in the properties of Same. */
struct Window {
    using Milliseconds = Rule::Milliseconds;

    const Rule* rule = nullptr;
    /** The values of Same. */
    std::string key;

    /** When Then or Unless were opened; nothing while they are not. */
    std::optional<Milliseconds> openedAt;
    Remembered first;
    /** When the events came that Count counts, the oldest first. */
    std::deque<Milliseconds> times;
    /** Until when the rule holds off. */
    std::optional<Milliseconds> heldUntil;
    /** How many posts it has held off since the last one. */
    uint64_t suppressed = 0;

private:
    friend class Windows;

    /** Of its texts and times, as they were taken in last. */
    size_t size = 0;
    /** A later number is a younger window. */
    uint64_t serial = 0;
    /** When the next thing here is over, as it was taken in last. */
    std::optional<Milliseconds> end;
    bool isDormant = false;
    std::list<Window>::iterator place;
};

/**
 * All windows of all rules: at most 1,000, with 1 MiB of texts and times.
 *
 * When there is no room the oldest gives way and is counted; those that hold nothing but the number of posts that were
 * held off go before any that is open. Whoever changes a window calls Settle, which keeps it in its place or removes it
 * when nothing is left in it. One thread at a time.
 */
class Windows {
public:
    using Milliseconds = Rule::Milliseconds;

    static constexpr size_t mostWindows = 1000;
    static constexpr size_t mostBytes = size_t{1024} * 1024;

    /** The window of the rule and the key; null if there is none. It stays where it is until Settle. */
    Window* Find(const Rule& rule, const std::string& key);

    /** As Find, but makes one that is missing. Something must be put into it before Settle. */
    Window& FindOrMake(const Rule& rule, const std::string& key);

    /** Makes the window the youngest of all: it was opened just now. */
    void MakeYoungest(Window& window);

    /** Takes the window's changes in. What is over at that time is cleared; with nothing left, the window is gone. */
    void Settle(Window& window, Milliseconds now);

    /** When something is over next; nothing while no window is open. */
    std::optional<Milliseconds> NextEnd() const;

    /** The window of which something is over by that time, the first of several; null if there is none. */
    Window* NextOver(Milliseconds now) const;

    /** Removes the windows of rules for which the function says so. */
    void RemoveIf(const std::function<bool(const Rule& rule)>& isGone);

    /** How many are open. */
    size_t OpenCount() const { return open.size(); }
    /** How many had to give way. */
    uint64_t GivenWay() const { return givenWay; }

private:
    using Name = std::pair<const Rule*, std::string_view>;
    struct NameHash {
        size_t operator()(const Name& name) const {
            return std::hash<std::string_view>()(name.second) * 31 + std::hash<const Rule*>()(name.first);
        }
    };

    void SetEnd(Window& window, std::optional<Milliseconds> end);
    void MoveToEndOf(std::list<Window>& list, Window& window);
    void MakeRoom(const Window& kept);
    Window* Oldest(const Window& kept);
    void Remove(Window& window);

    // The oldest first.
    std::list<Window> open;
    /** What holds nothing but the number of posts that were held off. */
    std::list<Window> dormant;
    /** The keys are those of the windows themselves. */
    std::unordered_map<Name, Window*, NameHash> byName;
    /** Those that end, by when, and by their age. */
    std::map<std::pair<Milliseconds, uint64_t>, Window*> byEnd;
    size_t bytes = 0;
    uint64_t lastSerial = 0;
    uint64_t givenWay = 0;
};

}  // namespace kelto::companion::rules
