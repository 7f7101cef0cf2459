#include "camera/command/CameraClient.h"

#include "camera/command/OneLine.h"
#include "camera/runtime/EventLoop.h"

#include <cerrno>
#include <cstring>
#include <string>

namespace kelto::vcam {

namespace {

constexpr const char* service = "com.kelto.VirtualCamera";
constexpr const char* path = "/com/kelto/VirtualCamera";
constexpr uint64_t patience = 5'000'000;  // microseconds

struct Error {
    Error() = default;
    Error(const Error&) = delete;
    Error& operator=(const Error&) = delete;
    ~Error() { sd_bus_error_free(&error); }

    bool Is(const char* name) const { return sd_bus_error_has_name(&error, name) != 0; }

    sd_bus_error error = SD_BUS_ERROR_NULL;
};

[[noreturn]] void Explain(const Error& error, int result) {
    if (error.error.name == nullptr) {
        throw Failure(std::string("Cannot call the camera: ") + std::strerror(-result));
    }
    if (error.Is(SD_BUS_ERROR_SERVICE_UNKNOWN) || error.Is(SD_BUS_ERROR_NAME_HAS_NO_OWNER)) {
        throw Failure("There is no camera on this bus: is kelto-vcam running?");
    }
    if (error.Is(SD_BUS_ERROR_ACCESS_DENIED)) {
        throw Failure("The bus does not let you drive the camera: where it is installed, only root may");
    }
    if (result == -ETIMEDOUT) {
        throw Failure("The camera does not answer");
    }
    if (result == -ECONNRESET) {
        throw Failure("The bus has gone away");
    }
    throw Failure(OneLine(error.error.message != nullptr ? error.error.message : error.error.name));
}

}  // namespace

CameraClient::CameraClient() {
    sd_bus* opened = nullptr;
    Check(sd_bus_open_system_with_description(&opened, "kelto-vcam command"), "Cannot open the system bus");
    bus.reset(opened);
    AwaitBus();
}

void CameraClient::AwaitBus() {
    const uint64_t deadline = EventLoop::Now() + patience;
    while (Check(sd_bus_is_ready(bus.get()), "Cannot use the system bus") == 0) {
        const uint64_t now = EventLoop::Now();
        if (now >= deadline) {
            throw Failure("The system bus does not answer");
        }
        if (Check(sd_bus_process(bus.get(), nullptr), "Cannot use the system bus") == 0) {
            Check(sd_bus_wait(bus.get(), deadline - now), "Cannot use the system bus");
        }
    }
}

BusMessagePtr CameraClient::NewCall(const char* method) {
    sd_bus_message* made = nullptr;
    Check(sd_bus_message_new_method_call(bus.get(), &made, service, path, service, method), "Cannot call the camera");
    BusMessagePtr call(made);
    Check(sd_bus_message_set_auto_start(call.get(), 0), "Cannot call the camera");
    return call;
}

BusMessagePtr CameraClient::Send(const BusMessagePtr& call) {
    Error error;
    sd_bus_message* answer = nullptr;
    const int result = sd_bus_call(bus.get(), call.get(), patience, &error.error, &answer);
    if (result < 0) {
        Explain(error, result);
    }
    return BusMessagePtr(answer);
}

}  // namespace kelto::vcam
