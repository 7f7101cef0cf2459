#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kelto::halvek::mqtt {

/**
 * The names under which a camera is known to its broker.
 *
 * One byte that a broker does not take in a topic ends the connection, again and again. So levels that come from events
 * are made of letters, digits, ".", "_" and "-" alone; every other byte becomes %XX. A plain value.
 */
class Topics {
public:
    /** In bytes. */
    static constexpr size_t longest = 512;

    Topics(std::string prefix, std::string id);

    /** One level of a topic: "Front door" becomes "Front%20door". */
    static std::string Level(std::string_view text);

    std::string Status() const { return base + "status"; }
    std::string Info() const { return base + "info"; }
    std::string Stats() const { return base + "stats"; }
    std::string Snapshot() const { return base + "snapshot"; }
    std::string PostResult() const { return base + "post-result"; }
    /** All that may be posted. */
    std::string PostFilter() const { return base + "post/+"; }
    /** Every state of an alarm. */
    std::string AlarmFilter() const { return base + "alarm/#"; }

    /** Nothing if it would be too long. */
    std::optional<std::string> Event(std::string_view type) const { return Fitting(base + "event/" + Level(type)); }
    /** Nothing if it would be too long. */
    std::optional<std::string> Alarm(std::string_view bank, std::string_view index) const;

    /** What stands behind "post/": nothing if the topic is none of those that may be posted. */
    std::optional<std::string_view> PostedLevel(std::string_view topic) const;
    /** Whether it is the state of an alarm of this camera. */
    bool IsAlarm(std::string_view topic) const { return topic.starts_with(base + "alarm/"); }

    const std::string& Id() const { return id; }
    /** The description of the camera for home automation. */
    std::string Discovery() const { return "homeassistant/device/" + id + "/config"; }

    /** The topic, unless it is longer than a topic may be. */
    static std::optional<std::string> Fitting(std::string topic);

private:
    std::string id;
    std::string base;
};

}  // namespace kelto::halvek::mqtt
