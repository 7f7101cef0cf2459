#pragma once

#include "companions/common/ReceivedEvent.h"
#include "companions/ctl/listen/ReadTime.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace kelto::halvek::ctl {

/** Events as "watch" shows them, each with a number of its own and the time at which it was read. One thread at a time.
 */
class EventLine {
public:
    enum class Look {
        /** A line for people. */
        Text,
        /** A JSON object. */
        Json,
        /** The block as the daemon writes it. */
        Raw,
    };

    /** @param type shows events of that type only; nothing for all */
    EventLine(Look eventLook, std::optional<std::string> type);

    /** With its line break; empty for an event of another type. */
    std::string Of(const companion::ReceivedEvent& event, const ReadTime& time);

    /** Counts an event that will not be shown; false for one of another type. */
    bool Miss(const companion::ReceivedEvent& event);

    /** What stands in the place of so many events. */
    std::string Dropped(uint64_t count) const;

private:
    std::string Json(const companion::ReceivedEvent& event, const ReadTime& time) const;

    // Constant after construction.
    Look look;
    std::optional<std::string> onlyType;
    /** Empty if it is hidden from us. */
    std::string boot;

    uint64_t number = 0;
};

}  // namespace kelto::halvek::ctl
