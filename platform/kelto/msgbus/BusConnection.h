#pragma once

#include <systemd/sd-bus.h>

#include <chrono>
#include <functional>
#include <memory>

namespace kelto::msgbus {

struct BusUnref {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
struct BusMessageUnref {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
struct BusSlotUnref {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};

using BusMessagePtr = std::unique_ptr<sd_bus_message, BusMessageUnref>;
using BusSlotPtr = std::unique_ptr<sd_bus_slot, BusSlotUnref>;

/**
 * A connection to the camera's bus, which is the system bus as libsystemd finds it. It belongs to the thread that
 * opened it.
 */
class BusConnection {
public:
    using Clock = std::chrono::steady_clock;

    /** Waits for the connection's input or output, for a time at most; false if one need not wait any more. */
    using Wait = std::function<bool(sd_bus*, std::chrono::microseconds)>;

    /**
     * Opens it and waits until it can be used. Throws kelto::osa::Exception if that fails, takes longer or is given up.
     *
     * @param wait how to wait meanwhile, for who has to be woken for other reasons too
     */
    explicit BusConnection(Clock::time_point deadline, const Wait& wait = WaitForBus);

    sd_bus* Get() const { return bus.get(); }

    /**
     * Takes in what has arrived, replies that came too late for instance. Does not wait.
     *
     * @return false if the connection is dead, or if more than 8 messages or 4 KiB have arrived: anybody may send to a
     *         connection, and a new one costs less than what somebody has sent to it for hours
     */
    bool Drain();

private:
    static bool WaitForBus(sd_bus* bus, std::chrono::microseconds limit);

    void WaitUntilReady(Clock::time_point deadline, const Wait& wait);

    std::unique_ptr<sd_bus, BusUnref> bus;
};

/** Throws a negative result of libsystemd as kelto::osa::Exception; hands others through. */
int CheckBusResult(int result, const char* what);

}  // namespace kelto::msgbus
