#include "companions/mqtt/OnvifTopics.h"

#include "companions/common/ClockState.h"
#include "companions/common/Json.h"
#include "companions/mqtt/Topics.h"

#include <utility>

namespace kelto::halvek::mqtt {

using companion::ClockState;
using companion::Json;

namespace {

/** The token of an input: its bank and index. */
std::string TokenOf(const AlarmName& alarm) {
    return alarm.first + "-" + alarm.second;
}

}  // namespace

std::optional<Message> OnvifTopics::MessageOf(const QueuedEvent& event) const {
    if (const std::optional<AlarmName> alarm = AlarmStates::NameIn(event.event)) {
        return AlarmMessage(*alarm, *event.event.Find("alarmState") == "1", event.time);
    }
    std::optional<std::string> topic = Topics::Fitting(OtherTopic(event.event));
    if (!topic) {
        return std::nullopt;
    }
    Json json;
    json.BeginObject().Key("UtcTime").String(ClockState::IsoTime(event.time));
    json.Key("Source").BeginObject().EndObject();
    json.Key("Data").BeginObject();
    for (const auto& [key, value] : event.event.properties) {
        json.Key(key).String(value);
    }
    json.EndObject().EndObject();
    return Message{std::move(*topic), json.Text(), 1, false, Content::Json, std::nullopt};
}

std::optional<Message> OnvifTopics::AlarmMessage(const AlarmName& alarm, bool isOn, int64_t time) const {
    std::optional<std::string> topic = AlarmTopic(alarm);
    if (!topic) {
        return std::nullopt;
    }
    Json json;
    json.BeginObject().Key("UtcTime").String(ClockState::IsoTime(time));
    json.Key("Source").BeginObject().Key("InputToken").String(TokenOf(alarm)).EndObject();
    json.Key("Data").BeginObject().Key("LogicalState").Bool(isOn).EndObject();
    json.EndObject();
    return Message::State(std::move(*topic), json.Text(), Content::Json);
}

std::optional<Message> OnvifTopics::AlarmRemoval(const AlarmName& alarm) const {
    std::optional<std::string> topic = AlarmTopic(alarm);
    if (!topic) {
        return std::nullopt;
    }
    return Message::State(std::move(*topic), "");
}

std::optional<std::string> OnvifTopics::AlarmTopic(const AlarmName& alarm) const {
    return Topics::Fitting(base + "Device/Trigger/DigitalInput/&" + Topics::Level(TokenOf(alarm)));
}

std::string OnvifTopics::OtherTopic(const companion::ReceivedEvent& event) const {
    if (event.Find("eventId") != nullptr) {
        return base + "halvek:Posted/" + Topics::Level(event.type);
    }
    if (event.type == "AnalyticsAlert") {
        return base + "halvek:Alert";
    }
    return base + "halvek:" + Topics::Level(event.type);
}

}  // namespace kelto::halvek::mqtt
