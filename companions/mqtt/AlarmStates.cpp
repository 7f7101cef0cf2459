#include "companions/mqtt/AlarmStates.h"

namespace kelto::halvek::mqtt {

std::optional<AlarmName> AlarmStates::NameIn(const companion::ReceivedEvent& event) {
    const std::string* bank = event.Find("alarmBank");
    const std::string* index = event.Find("alarmIndex");
    const std::string* state = event.Find("alarmState");
    const bool isAlarm = event.type == "Alarm" && bank != nullptr && !bank->empty() && index != nullptr &&
                         !index->empty() && state != nullptr && (*state == "0" || *state == "1");
    return isAlarm ? std::optional(AlarmName(*bank, *index)) : std::nullopt;
}

uint64_t AlarmStates::Take(const AlarmName& name, bool isOn, int64_t time) {
    if (alarms.size() >= mostAlarms && !Knows(name)) {
        return 0;
    }
    Alarm& alarm = alarms[name];
    alarm.isOn = isOn;
    alarm.time = time;
    alarm.version = ++lastVersion;
    alarm.isOverdue = false;
    return alarm.version;
}

std::optional<AlarmState> AlarmStates::Overdue() const {
    for (const auto& [name, alarm] : alarms) {
        if (alarm.isOverdue && alarm.toldVersion < alarm.version) {
            return AlarmState{name, alarm.isOn, alarm.version, alarm.time};
        }
    }
    return std::nullopt;
}

void AlarmStates::MarkOverdue(const AlarmName& name, uint64_t version) {
    if (const auto found = alarms.find(name); found != alarms.end() && found->second.version == version) {
        found->second.isOverdue = true;
    }
}

bool AlarmStates::IsNews(const AlarmName& name, uint64_t version) const {
    const auto found = alarms.find(name);
    return found != alarms.end() && version > found->second.toldVersion;
}

void AlarmStates::MarkTold(const AlarmName& name, uint64_t version) {
    if (const auto found = alarms.find(name); found != alarms.end() && version > found->second.toldVersion) {
        found->second.toldVersion = version;
    }
}

std::vector<AlarmState> AlarmStates::All() const {
    std::vector<AlarmState> states;
    for (const auto& [name, alarm] : alarms) {
        states.push_back({name, alarm.isOn, alarm.version, alarm.time});
    }
    return states;
}

}  // namespace kelto::halvek::mqtt
