#pragma once

#include <systemd/sd-bus.h>

#include <memory>

namespace kelto::vcam {

/** What has not been sent yet is sent before the connection is closed. */
struct BusUnref {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct BusMessageUnref {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
struct BusSlotUnref {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};

using BusPtr = std::unique_ptr<sd_bus, BusUnref>;
using BusMessagePtr = std::unique_ptr<sd_bus_message, BusMessageUnref>;
using BusSlotPtr = std::unique_ptr<sd_bus_slot, BusSlotUnref>;

}  // namespace kelto::vcam
