#include "bench/load/CameraService.h"

#include "bench/load/Clock.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace kelto::halvek::bench {

namespace {

constexpr int64_t nsPerUs = 1000;

int Check(int result, const char* what) {
    if (result < 0) {
        throw std::runtime_error(std::string(what) + ": " + std::strerror(-result));
    }
    return result;
}

}  // namespace

const sd_bus_vtable CameraService::relayMethods[] = {
    SD_BUS_VTABLE_START(SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetConfiguration", "si", "bbiiii", OnGetConfiguration, 0),
    SD_BUS_METHOD("SetConfiguration", "sibiiii", "b", OnSetConfiguration, 0),
    SD_BUS_METHOD("Activate", "sii", "b", OnActivate, 0),
    SD_BUS_VTABLE_END,
};

CameraService::CameraService() {
    sd_bus* opened = nullptr;
    Check(sd_bus_open_system(&opened), "Cannot use the bus");
    bus.reset(opened);
    Check(sd_bus_add_object_vtable(opened, nullptr, "/com/kelto/RelayV3", "com.kelto.RelayV3", relayMethods, this),
          "Cannot offer the relay service");
    Check(sd_bus_request_name(opened, "com.kelto.AlarmV3", 0), "Cannot take com.kelto.AlarmV3");
    Check(sd_bus_request_name(opened, "com.kelto.RelayV3", 0), "Cannot take com.kelto.RelayV3");
}

void CameraService::RaiseAlarm(const std::string& path) {
    Check(sd_bus_emit_signal(bus.get(), path.c_str(), "com.kelto.AlarmV3", "StateChanged", "sib", "Local", 0, 1),
          "Cannot raise an alarm");
}

bool CameraService::ServeUntilActivated(size_t relay, uint64_t count, int64_t deadline) {
    while (Activations(relay) < count && Now() < deadline) {
        ServeOnce(deadline);
    }
    return Activations(relay) >= count;
}

void CameraService::ServeUntil(int64_t time) {
    while (Now() < time) {
        ServeOnce(time);
    }
}

void CameraService::ServeOnce(int64_t deadline) {
    while (!unanswered.empty() && unanswered.front().due <= Now()) {
        Check(sd_bus_send(bus.get(), unanswered.front().reply.get(), nullptr), "Cannot answer");
        unanswered.pop_front();
    }
    if (Check(sd_bus_process(bus.get(), nullptr), "The bus is gone") > 0) {
        return;
    }
    const int64_t until = unanswered.empty() ? deadline : std::min(deadline, unanswered.front().due);
    const int64_t wait = std::max<int64_t>(until - Now(), 0);
    Check(sd_bus_wait(bus.get(), static_cast<uint64_t>((wait + nsPerUs - 1) / nsPerUs)), "The bus is gone");
}

int CameraService::Reply(sd_bus_message* call, sd_bus_message* reply) {
    ++calls;
    unanswered.push_back({Now() + answerDelay, decltype(Answer::reply)(reply)});
    if (answerDelay == 0) {
        const int result = sd_bus_send(sd_bus_message_get_bus(call), reply, nullptr);
        unanswered.pop_back();
        return result;
    }
    return 1;
}

int CameraService::OnGetConfiguration(sd_bus_message* call, void* userdata, sd_bus_error*) {
    sd_bus_message* reply = nullptr;
    Check(sd_bus_message_new_method_return(call, &reply), "Cannot answer");
    Check(sd_bus_message_append(reply, "bbiiii", 1, 0, 3, 500, 500, 1), "Cannot answer");
    return static_cast<CameraService*>(userdata)->Reply(call, reply);
}

int CameraService::OnSetConfiguration(sd_bus_message* call, void* userdata, sd_bus_error*) {
    sd_bus_message* reply = nullptr;
    Check(sd_bus_message_new_method_return(call, &reply), "Cannot answer");
    Check(sd_bus_message_append(reply, "b", 1), "Cannot answer");
    return static_cast<CameraService*>(userdata)->Reply(call, reply);
}

int CameraService::OnActivate(sd_bus_message* call, void* userdata, sd_bus_error* error) {
    auto* const self = static_cast<CameraService*>(userdata);
    const int64_t now = Now();
    const char* bank = nullptr;
    int32_t index = 0;
    int32_t mode = 0;
    Check(sd_bus_message_read(call, "sii", &bank, &index, &mode), "Cannot read a call");
    if (index < 0 || static_cast<size_t>(index) >= relays) {
        return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "There is no such relay");
    }
    self->lastActivation = now;
    ++self->activations[static_cast<size_t>(index)];
    return OnSetConfiguration(call, userdata, error);
}

}  // namespace kelto::halvek::bench
