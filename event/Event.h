#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace kelto::halvek {

/**
 * The record that travels from a source to its handlers: named text values and a priority.
 *
 * A source builds it as a local value and hands it to EventSource::FireEvent; only that thread touches it.
 */
class Event {
public:
    using Properties = std::map<std::string, std::string>;

    /** Copies the properties; the priority is 0. */
    explicit Event(const Properties& eventProperties);
    Event(const Properties& eventProperties, const int32_t& eventPriority);
    /** Takes the properties over; the priority is 0. */
    explicit Event(Properties&& eventProperties);

    /** The kind of the event for a log line, "{Event: TimerEvent}" for instance. */
    virtual std::string ToString() const;

    virtual ~Event() = default;

    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    /** The property "eventType". Throws kelto::osa::Exception if there is none. */
    const std::string& GetEventType() const;

    /** Replaces all properties. */
    void SetProperties(const Properties& newProperties) { properties = newProperties; }

    const Properties& GetProperties() const { return properties; }

    bool HasProperties() const { return !properties.empty(); }

    /** Writes the local time of now into "Timestamp" and "FormattedTime", over what stood there. */
    void StampTime();

    /** 1 or more for an alarm, below 1 for everything else. */
    const int32_t& GetPriority() const { return priority; }

private:
    Properties properties;
    int32_t priority;
};

}  // namespace kelto::halvek
