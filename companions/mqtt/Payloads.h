#pragma once

#include "companions/common/Json.h"
#include "companions/mqtt/Counters.h"
#include "companions/mqtt/Identity.h"
#include "companions/mqtt/QueuedEvent.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kelto::halvek::mqtt {

/** What the messages hold, as JSON in UTF-8 whatever the events held. Any thread. */
class Payloads {
public:
    static constexpr const char* online = "online";
    static constexpr const char* offline = "offline";

    /**
     * @param queued how long it has waited
     * @param isReplayed whether it came while no connection was up, or on an earlier one
     */
    static std::string Event(const QueuedEvent& event, const Identity& identity, std::chrono::milliseconds queued,
                             bool isReplayed);

    static std::string Info(const Identity& identity);

    /** What Info was made of; nothing if it is not one of ours. The host is left out. */
    static std::optional<Identity> ReadInfo(std::string_view payload);

    static std::string Stats(const Counters& counters);
    /** Adds the counters to an object that is open. */
    static void AddCounters(companion::Json& json, const Counters& counters);

    /** @param number of the post, from 1 */
    static std::string PostResult(uint64_t number, std::string_view result);

    static const char* Alarm(bool isOn) { return isOn ? "ON" : "OFF"; }
};

}  // namespace kelto::halvek::mqtt
