#pragma once

#include "companions/common/PostedEvent.h"
#include "companions/common/ReceivedEvent.h"
#include "companions/rules/Rule.h"
#include "companions/rules/Windows.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kelto::companion::rules {

/**
 * Makes events of events: it takes what has happened, and hands on what the rules want to be posted.
 *
 * It knows no clock and no pipe. Times are those of one clock that never steps back. Each post carries the rules behind
 * it, and no rule acts on an event that it is behind itself: whatever the rules are, one event leads to a limited
 * number of posts. One thread at a time.
 */
class Engine {
public:
    using Milliseconds = Rule::Milliseconds;

    /** Where posts go. It must not call the engine. */
    class Outlet {
    public:
        virtual ~Outlet() = default;

        /** Posts an event. @param block its text @return false if it could not be posted */
        virtual bool Post(const Rule& rule, const PostedEvent& event, const std::string& block) = 0;

        /** Is told of an event that is none that can be posted, and why. */
        virtual void Refuse(const Rule& rule, const std::string& why) = 0;
    };

    struct Counts {
        uint64_t events = 0;
        uint64_t posts = 0;
        /** Posts that were held off. */
        uint64_t suppressed = 0;
        /** Posts that the outlet did not take. */
        uint64_t dropped = 0;
        /** Posts that were refused. */
        uint64_t refused = 0;
    };

    /** @param eventOutlet lives longer */
    explicit Engine(Outlet& eventOutlet) : outlet(eventOutlet) {}

    /** Takes other rules. Those that are as they were keep their windows. */
    void SetRules(std::vector<Rule> newRules);

    /** Takes an event that came at that time. What was due before is not looked at: see Expire. */
    void Take(const ReceivedEvent& event, Milliseconds now);

    /** Posts what has become due by that time, the earliest first. */
    void Expire(Milliseconds now);

    /** When Expire has something to do next; nothing while no window is open. */
    std::optional<Milliseconds> NextEnd() const { return windows.NextEnd(); }

    const Counts& GetCounts() const { return counts; }
    size_t RuleCount() const { return rules.size(); }
    size_t OpenWindows() const { return windows.OpenCount(); }
    /** Windows that had to make room for others. */
    uint64_t GivenWay() const { return windows.GivenWay(); }

private:
    /** What a post is made of: the event that led to it, and an earlier one. One of the two may be missing. */
    struct Cause {
        const ReceivedEvent* event = nullptr;
        const Remembered* earlier = nullptr;

        const std::string* Find(const std::string& key) const;
        std::string Chain() const;
    };

    void TakeFor(const Rule& rule, const ReceivedEvent& event, bool isBehind, Milliseconds now);
    void TakeCount(const Rule& rule, const ReceivedEvent& event, Milliseconds now);
    void TakeThen(const Rule& rule, const ReceivedEvent& event, bool isBehind, Milliseconds now);
    void TakeUnless(const Rule& rule, const ReceivedEvent& event, bool isBehind, Milliseconds now);
    void Open(const Rule& rule, const ReceivedEvent& event, const std::string& key, Milliseconds now);
    void Fire(const Rule& rule, const std::string& key, const Cause& cause, Milliseconds now);
    bool Post(const Rule& rule, const Cause& cause, uint64_t suppressed);
    static PostedEvent MakeEvent(const Rule& rule, const Cause& cause, uint64_t suppressed);

    Outlet& outlet;

    std::vector<std::shared_ptr<const Rule>> rules;
    /** The rules that an event of a type may concern, in the order of the file. */
    std::unordered_map<std::string, std::vector<const Rule*>> byType;
    Windows windows;
    Counts counts;
};

}  // namespace kelto::companion::rules
