#pragma once

#include <cstdint>
#include <string>

namespace kelto::halvek::mqtt {

/** Which run of the program this is. A plain value. */
struct Identity {
    /** 32 hexadecimal digits. */
    std::string boot;
    /** When it was started, as ClockState::IsoTime writes it. */
    std::string since;
    std::string host;

    /** Of this process; to be called once. Throws std::system_error if the boot cannot be told. */
    static Identity Make();

    /** "BOOT8-SEQ" */
    std::string EventId(uint64_t number) const { return boot.substr(0, 8) + "-" + std::to_string(number); }

    /**
     * The number of the first event. It is made of the time since the boot, so that no event of a later process of the
     * same boot ever has the number of an earlier one: nobody reads a million events a second.
     */
    static uint64_t FirstNumber();

    bool operator==(const Identity&) const = default;
};

}  // namespace kelto::halvek::mqtt
