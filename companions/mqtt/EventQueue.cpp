#include "companions/mqtt/EventQueue.h"

#include <utility>

namespace kelto::halvek::mqtt {

EventQueue::EventQueue(Wake& eventWake, size_t most, Milliseconds age)
    : wake(eventWake), mostEvents(most), maxAge(age) {}

void EventQueue::SetLimits(size_t most, Milliseconds age) {
    const std::lock_guard lock(mutex);
    mostEvents = most;
    maxAge = age;
    KeepToLimits();
}

void EventQueue::Push(QueuedEvent event) {
    const std::lock_guard lock(mutex);
    ++counters.received;
    counters.stale += event.event.isStale ? 1 : 0;
    event.connection = connection;
    NoteSeen(event.event);
    // What an earlier process left tells how an alarm was, not how it is.
    if (const std::optional<AlarmName> alarm = AlarmStates::NameIn(event.event); alarm && !event.event.isStale) {
        seenVersion += alarms.Knows(*alarm) ? 0 : 1;
        event.alarmVersion = alarms.Take(*alarm, *event.event.Find("alarmState") == "1", event.time);
    }
    DropOld(event.receivedAt);
    bytes += event.Size();
    events.push_back(std::move(event));
    KeepToLimits();
    if (isWaitedFor) {
        isWaitedFor = false;
        wake.Set();
    }
}

std::optional<QueuedEvent> EventQueue::Pop(Milliseconds now) {
    const std::lock_guard lock(mutex);
    DropOld(now);
    if (events.empty()) {
        return std::nullopt;
    }
    std::optional<QueuedEvent> event(std::move(events.front()));
    events.pop_front();
    bytes -= event->Size();
    return event;
}

bool EventQueue::WaitForEvent() {
    const std::lock_guard lock(mutex);
    isWaitedFor = events.empty();
    return isWaitedFor;
}

void EventQueue::CountSent() {
    const std::lock_guard lock(mutex);
    ++counters.sent;
}

void EventQueue::CountRefused(const QueuedEvent& event) {
    const std::lock_guard lock(mutex);
    ++counters.refused;
    NoteDropped(event);
}

void EventQueue::CountTooLong(const QueuedEvent& event) {
    const std::lock_guard lock(mutex);
    ++counters.droppedTopic;
    NoteDropped(event);
}

void EventQueue::CountTooOld(const QueuedEvent& event) {
    const std::lock_guard lock(mutex);
    ++counters.droppedOld;
    NoteDropped(event);
}

void EventQueue::CountRefusedPost() {
    const std::lock_guard lock(mutex);
    ++counters.refusedPosts;
}

bool EventQueue::IsTooOld(const QueuedEvent& event, Milliseconds now) const {
    const std::lock_guard lock(mutex);
    return now - event.receivedAt > maxAge;
}

Counters EventQueue::Count() const {
    const std::lock_guard lock(mutex);
    return counters;
}

size_t EventQueue::Length() const {
    const std::lock_guard lock(mutex);
    return events.size();
}

void EventQueue::SetConnection(uint64_t number) {
    const std::lock_guard lock(mutex);
    connection = number;
}

std::optional<AlarmState> EventQueue::OverdueAlarm() const {
    const std::lock_guard lock(mutex);
    return alarms.Overdue();
}

bool EventQueue::IsAlarmNews(const AlarmName& name, uint64_t version) const {
    const std::lock_guard lock(mutex);
    return alarms.IsNews(name, version);
}

void EventQueue::MarkAlarmTold(const AlarmName& name, uint64_t version) {
    const std::lock_guard lock(mutex);
    alarms.MarkTold(name, version);
}

std::vector<AlarmState> EventQueue::Alarms() const {
    const std::lock_guard lock(mutex);
    return alarms.All();
}

bool EventQueue::KnowsAlarm(const AlarmName& name) const {
    const std::lock_guard lock(mutex);
    return alarms.Knows(name);
}

std::set<std::string> EventQueue::SeenTypes() const {
    const std::lock_guard lock(mutex);
    return seenTypes;
}

uint64_t EventQueue::SeenVersion() const {
    const std::lock_guard lock(mutex);
    return seenVersion;
}

void EventQueue::DropOld(Milliseconds now) {
    while (!events.empty() && now - events.front().receivedAt > maxAge) {
        DropFront(counters.droppedOld);
    }
}

void EventQueue::DropFront(uint64_t& counter) {
    ++counter;
    bytes -= events.front().Size();
    NoteDropped(events.front());
    events.pop_front();
}

void EventQueue::KeepToLimits() {
    while (events.size() > mostEvents || bytes > mostBytes) {
        DropFront(counters.droppedFull);
    }
}

void EventQueue::NoteSeen(const companion::ReceivedEvent& event) {
    if (seenTypes.size() < mostTypes && seenTypes.insert(event.type).second) {
        ++seenVersion;
    }
}

void EventQueue::NoteDropped(const QueuedEvent& event) {
    if (event.alarmVersion == 0) {
        return;
    }
    if (const std::optional<AlarmName> alarm = AlarmStates::NameIn(event.event)) {
        alarms.MarkOverdue(*alarm, event.alarmVersion);
    }
}

}  // namespace kelto::halvek::mqtt
