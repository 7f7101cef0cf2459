#pragma once

#include "kelto/msgbus/MsgBusMsg.h"

#include <systemd/sd-bus.h>

namespace kelto::msgbus {

/** Makes a plain value of a message of libsystemd's. */
class MessageReader {
public:
    /** Throws kelto::osa::Exception if the message holds what MsgBusMsg has no place for, or cannot be read. */
    static MsgBusMsg Read(sd_bus_message* message);
};

}  // namespace kelto::msgbus
