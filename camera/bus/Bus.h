#pragma once

#include "camera/bus/Pointers.h"
#include "camera/runtime/Failure.h"
#include "camera/runtime/Output.h"

#include <systemd/sd-bus.h>

#include <cstring>
#include <string>

namespace kelto::vcam {

class EventLoop;

/**
 * The virtual camera's one connection to the system bus, served by the event loop. When the bus goes away it says so
 * and leaves the loop with status 1: a connection that has died comes back with none of its names, so starting anew is
 * the service manager's job.
 */
class Bus {
public:
    /** Throws Failure if there is no bus. */
    explicit Bus(EventLoop& eventLoop);
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    sd_bus* Get() const { return bus.get(); }

    /** Throws Failure if the name belongs to another process. */
    void TakeName(const std::string& name);

    /** Sends a signal; the arguments are those of sd_bus_message_append. It never fails: a bus that is gone ends us. */
    template <class... Arguments>
    void Emit(const char* path, const char* interface, const char* signal, const char* types, Arguments... arguments) {
        const int result = sd_bus_emit_signal(bus.get(), path, interface, signal, types, arguments...);
        if (result < 0) {
            Complain("Cannot send the signal %s: %s", signal, std::strerror(-result));
        }
    }

private:
    static int OnDisconnected(sd_bus_message* message, void* self, sd_bus_error* error);

    EventLoop& loop;
    BusPtr bus;
    BusSlotPtr disconnected;
};

}  // namespace kelto::vcam
