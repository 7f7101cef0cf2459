#pragma once

#include "kelto/msgbus/MsgBusMsg.h"

#include <systemd/sd-bus.h>

namespace kelto::msgbus {

/** Makes a plain value of a message of libsystemd's. */
class MessageReader {
public:
    /**
     * Reads a message from its beginning to its end.
     *
     * @param mostBytes what the arguments may take in memory, several times what they take on the bus. One that takes
     *                  more is given up half-way: it comes out without arguments, with a size above this limit
     * @throws kelto::osa::Exception if the message holds what MsgBusMsg has no place for, or cannot be read
     */
    static MsgBusMsg Read(sd_bus_message* message, size_t mostBytes);
};

}  // namespace kelto::msgbus
