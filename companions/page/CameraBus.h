#pragma once

#include "camera/bus/Pointers.h"
#include "camera/runtime/Timer.h"
#include "companions/page/CameraView.h"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>

namespace kelto::vcam {
class EventLoop;
}

namespace kelto::page {

/**
 * The camera as it is reached over the system bus. Bus and camera may go and come back: whoever uses this is told, and
 * has nothing to do. No call waits, and everything is called from the loop.
 */
class CameraBus {
public:
    /** What is told without having been asked for. None of these may throw. */
    struct Listener {
        /** Once: signals are listened to, and whether there is a camera has been told; or there is no bus yet. */
        std::function<void()> settled;
        std::function<void(bool isThere)> camera;
        std::function<void(uint64_t time, const std::string& line)> said;
        std::function<void(const std::string& bank, int32_t index, bool active)> alarm;
    };

    /** How a call has ended. */
    struct Result {
        enum class Outcome { Done, Refused, Away };
        Outcome outcome;
        std::string text;         ///< of the refusal, or why there is no answer
        sd_bus_message* message;  ///< the answer, if it is done
    };
    using Callback = std::function<void(const Result& result)>;
    /** Adds the arguments of a call; returns what libsystemd does. */
    using Arguments = std::function<int(sd_bus_message* call)>;

    CameraBus(vcam::EventLoop& eventLoop, Listener cameraListener);
    ~CameraBus();
    CameraBus(const CameraBus&) = delete;
    CameraBus& operator=(const CameraBus&) = delete;

    bool IsThere() const { return !owner.empty(); }

    /** Calls a method of a service of the camera: "Tour" has the method "Start". The callback comes once, perhaps
     *  before this returns, and must not throw. */
    void Call(const std::string& service, const std::string& method, const Arguments& arguments, Callback callback);

private:
    struct Pending;

    static int OnAnswer(sd_bus_message* answer, void* pending, sd_bus_error* error);
    static int OnDisconnected(sd_bus_message* message, void* self, sd_bus_error* error);
    static int OnOwnerChanged(sd_bus_message* message, void* self, sd_bus_error* error);
    static int OnOwner(sd_bus_message* answer, void* self, sd_bus_error* error);
    static int OnSaid(sd_bus_message* message, void* self, sd_bus_error* error);
    static int OnStateChanged(sd_bus_message* message, void* self, sd_bus_error* error);

    void Connect();
    void TryToConnect();
    void Disconnect();
    void Match(const char* rule, sd_bus_message_handler_t handler);
    void SetOwner(const std::string& newOwner);
    void Settle();
    bool IsFromCamera(sd_bus_message* message) const;
    int Send(const std::string& service, const std::string& method, const Arguments& arguments, Pending& pending);

    vcam::EventLoop& loop;
    const Listener listener;
    vcam::Timer retry;
    vcam::Timer settling;
    bool isSettled = false;
    std::string owner;  ///< the camera's connection, empty while it is away
    std::list<Pending> calls;
    vcam::BusPtr bus;
};

}  // namespace kelto::page
