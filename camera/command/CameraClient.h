#pragma once

#include "camera/bus/Pointers.h"
#include "camera/runtime/Failure.h"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <memory>

namespace kelto::vcam {

/** A connection to the camera that is running, through the service that drives it. It waits 5 s at most. */
class CameraClient {
public:
    /** Throws Failure if there is no bus. */
    CameraClient();

    /** A call to be filled and sent. */
    BusMessagePtr NewCall(const char* method);
    /** Returns the answer. Throws Failure with the camera's own words if it refuses. */
    BusMessagePtr Send(const BusMessagePtr& call);

    /** Both at once; the arguments are those of sd_bus_message_append. */
    template <class... Arguments>
    BusMessagePtr Call(const char* method, const char* types, Arguments... arguments) {
        const BusMessagePtr call = NewCall(method);
        CheckArgument(sd_bus_message_append(call.get(), types, arguments...));
        return Send(call);
    }

    /** Hands a result of sd_bus_message_append on. */
    static void CheckArgument(int result) { Check(result, "Cannot send what was typed (text has to be UTF-8)"); }

private:
    /** Nothing is left to be sent when it is closed: what was sent has been answered, or never will be. */
    struct Close {
        void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
    };

    void AwaitBus();

    std::unique_ptr<sd_bus, Close> bus;
};

}  // namespace kelto::vcam
