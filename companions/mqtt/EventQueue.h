#pragma once

#include "companions/mqtt/AlarmStates.h"
#include "companions/mqtt/Counters.h"
#include "companions/mqtt/QueuedEvent.h"
#include "companions/mqtt/Wake.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kelto::halvek::mqtt {

/**
 * What stands between the thread that reads the pipe and the one that talks to the broker.
 *
 * The first must never wait for the second: a pipe that is not read costs the daemon a descriptor with each event. So
 * the room here is bounded, the oldest event gives way, and nobody holds the lock while he waits for anything. The
 * library that speaks to the broker would keep any number of messages; it gets one at a time.
 *
 * Any thread. Times are those of the clock that never steps.
 */
class EventQueue {
public:
    using Milliseconds = std::chrono::milliseconds;

    /** In bytes of types, keys and values. */
    static constexpr size_t mostBytes = size_t{256} * 1024;
    /** Types that were seen are remembered for the description of the camera, up to so many. */
    static constexpr size_t mostTypes = 64;

    /** @param eventWake set when there is an event for somebody who has asked for one; must live as long as this does
     */
    EventQueue(Wake& eventWake, size_t most, Milliseconds age);

    /** To be called with new settings. What does not fit any more is dropped. */
    void SetLimits(size_t events, Milliseconds age);

    /** Queues an event that has just been read, and notes the state if it is an alarm's. Never waits. */
    void Push(QueuedEvent event);

    /** The oldest event that is not too old. It belongs to the caller then, who says what became of it. */
    std::optional<QueuedEvent> Pop(Milliseconds now);

    /** Has the wake set at the next event. Returns false if there is one already. */
    bool WaitForEvent();

    /** What became of an event that Pop gave away. */
    void CountSent();
    void CountRefused(const QueuedEvent& event);
    void CountTooLong(const QueuedEvent& event);
    void CountTooOld(const QueuedEvent& event);
    void CountRefusedPost();

    bool IsTooOld(const QueuedEvent& event, Milliseconds now) const;

    Counters Count() const;
    /** How many events wait. */
    size_t Length() const;

    /** The number of the connection that is up; 0 for none. Events that come meanwhile remember it. */
    void SetConnection(uint64_t number);

    // The alarms, see AlarmStates.
    std::optional<AlarmState> OverdueAlarm() const;
    bool IsAlarmNews(const AlarmName& name, uint64_t version) const;
    void MarkAlarmTold(const AlarmName& name, uint64_t version);
    std::vector<AlarmState> Alarms() const;
    bool KnowsAlarm(const AlarmName& name) const;

    /** The types of events that have come so far. */
    std::set<std::string> SeenTypes() const;
    /** Changes whenever there is a new type or alarm. */
    uint64_t SeenVersion() const;

private:
    void DropOld(Milliseconds now);
    void DropFront(uint64_t& counter);
    void KeepToLimits();
    void NoteSeen(const companion::ReceivedEvent& event);
    void NoteDropped(const QueuedEvent& event);

    Wake& wake;

    mutable std::mutex mutex;
    // All of these are guarded by the mutex.
    size_t mostEvents;
    Milliseconds maxAge;
    std::deque<QueuedEvent> events;
    size_t bytes = 0;
    bool isWaitedFor = false;
    uint64_t connection = 0;
    Counters counters;
    AlarmStates alarms;
    std::set<std::string> seenTypes;
    uint64_t seenVersion = 0;
};

}  // namespace kelto::halvek::mqtt
