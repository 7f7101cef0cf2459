#pragma once

#include "companions/common/ReceivedEvent.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kelto::halvek::mqtt {

/** Bank and index of an alarm input, as the events have them. */
using AlarmName = std::pair<std::string, std::string>;

/** A state to be published. */
struct AlarmState {
    AlarmName name;
    bool isOn = false;
    /** Which change it was, see AlarmStates. */
    uint64_t version = 0;
    /** When that was read: milliseconds since 1970, in UTC. */
    int64_t time = 0;
};

/**
 * What the alarm inputs are, and what of it the broker knows.
 *
 * The states are not queued: after an outage the last one is all that counts. Each change gets a number, the version,
 * so that an old one that was queued with its event never follows a newer one. Not locked: see EventQueue.
 */
class AlarmStates {
public:
    /** More inputs no camera has, and each one more is kept by the broker for ever. */
    static constexpr size_t mostAlarms = 256;

    /** Bank and index of an alarm's event; nothing for any other. */
    static std::optional<AlarmName> NameIn(const companion::ReceivedEvent& event);

    /** Notes the state that an alarm's event tells. Returns the version; 0 if there is no room for another alarm. */
    uint64_t Take(const AlarmName& name, bool isOn, int64_t time);

    /** A state that the broker has not been told, and that no event in the queue will tell it: see MarkOverdue. */
    std::optional<AlarmState> Overdue() const;

    /** The event that would have told this change has been dropped. A younger one may still be on its way. */
    void MarkOverdue(const AlarmName& name, uint64_t version);

    /** Whether this change is news to the broker. */
    bool IsNews(const AlarmName& name, uint64_t version) const;

    /** The broker has been told. */
    void MarkTold(const AlarmName& name, uint64_t version);

    /** All that are known. */
    std::vector<AlarmState> All() const;
    bool Knows(const AlarmName& name) const { return alarms.count(name) != 0; }

private:
    struct Alarm {
        bool isOn = false;
        uint64_t version = 0;
        uint64_t toldVersion = 0;
        int64_t time = 0;
        bool isOverdue = false;
    };

    std::map<AlarmName, Alarm> alarms;
    uint64_t lastVersion = 0;
};

}  // namespace kelto::halvek::mqtt
