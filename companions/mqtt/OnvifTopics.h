#pragma once

#include "companions/mqtt/AlarmStates.h"
#include "companions/mqtt/Message.h"
#include "companions/mqtt/QueuedEvent.h"

#include <optional>
#include <string>

namespace kelto::halvek::mqtt {

/**
 * The same events once more, with the topics and payloads that ONVIF has for MQTT: properties, such as the state of an
 * alarm input, are kept by the broker, and all else is not. A plain value.
 */
class OnvifTopics {
public:
    /** @param prefix what all topics begin with */
    explicit OnvifTopics(const std::string& prefix) : base(prefix + "/onvif-ej/") {}

    /** The message for an event; nothing if its topic would be too long. */
    std::optional<Message> MessageOf(const QueuedEvent& event) const;

    /** The state of an alarm input by itself, as of a time in milliseconds since 1970. */
    std::optional<Message> AlarmMessage(const AlarmName& alarm, bool isOn, int64_t time) const;

    /** Has the broker forget the state of an alarm input. */
    std::optional<Message> AlarmRemoval(const AlarmName& alarm) const;

private:
    std::optional<std::string> AlarmTopic(const AlarmName& alarm) const;
    std::string OtherTopic(const companion::ReceivedEvent& event) const;

    std::string base;
};

}  // namespace kelto::halvek::mqtt
