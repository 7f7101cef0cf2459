#include "camera/bus/Bus.h"

#include "camera/runtime/EventLoop.h"

#include <cerrno>

namespace kelto::vcam {

namespace {

constexpr const char* localPath = "/org/freedesktop/DBus/Local";
constexpr const char* localInterface = "org.freedesktop.DBus.Local";

}  // namespace

Bus::Bus(EventLoop& eventLoop) : loop(eventLoop) {
    sd_bus* opened = nullptr;
    Check(sd_bus_open_system_with_description(&opened, "kelto-vcam"), "Cannot open the system bus");
    bus.reset(opened);
    sd_bus_slot* slot = nullptr;
    Check(sd_bus_match_signal(bus.get(), &slot, nullptr, localPath, localInterface, "Disconnected",
                              &Bus::OnDisconnected, this),
          "Cannot watch the bus");
    disconnected.reset(slot);
    // The first answer from the bus shows that somebody is there; until then an open socket means nothing.
    const char* uniqueName = nullptr;
    Check(sd_bus_get_unique_name(bus.get(), &uniqueName), "Cannot use the system bus");
    Check(sd_bus_attach_event(bus.get(), loop.Get(), SD_EVENT_PRIORITY_NORMAL), "Cannot serve the bus");
}

void Bus::TakeName(const std::string& name) {
    const int result = sd_bus_request_name(bus.get(), name.c_str(), 0);
    if (result == -EEXIST) {
        throw Failure("The name " + name + " is taken on this bus: is another kelto-vcam running?");
    }
    Check(result, "Cannot take the name " + name);
}

int Bus::OnDisconnected(sd_bus_message*, void* self, sd_bus_error*) {
    Complain("The bus has gone away");
    static_cast<Bus*>(self)->loop.Leave(1);
    return 0;
}

}  // namespace kelto::vcam
