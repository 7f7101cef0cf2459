#include "companions/page/ReadState.h"

#include "companions/page/CameraView.h"

#include <systemd/sd-bus.h>

namespace kelto::page {

namespace {

bool ReadRelays(sd_bus_message* answer, CameraView& view) {
    if (sd_bus_message_enter_container(answer, 'a', "(sibbiiiiii)") < 0) {
        return false;
    }
    view.relays.clear();
    CameraView::Relay relay;
    const char* bank = nullptr;
    int on = 0;
    int polarity = 0;
    while (sd_bus_message_read(answer, "(sibbiiiiii)", &bank, &relay.index, &on, &polarity, &relay.mode, &relay.onMs,
                               &relay.offMs, &relay.pulseCount, &relay.pulse, &relay.pulses) > 0) {
        relay.bank = bank;
        relay.on = on != 0;
        relay.polarity = polarity != 0;
        view.relays.push_back(relay);
    }
    return sd_bus_message_exit_container(answer) >= 0;
}

bool ReadHead(sd_bus_message* answer, CameraView& view) {
    if (sd_bus_message_enter_container(answer, 'r', "ddtiai") < 0 ||
        sd_bus_message_read(answer, "ddti", &view.position, &view.target, &view.timeToTarget, &view.idleState) < 0 ||
        sd_bus_message_enter_container(answer, 'a', "i") < 0) {
        return false;
    }
    view.route.clear();
    int32_t preset = 0;
    while (sd_bus_message_read(answer, "i", &preset) > 0) {
        view.route.push_back(preset);
    }
    const int result = sd_bus_message_exit_container(answer);
    return result >= 0 && sd_bus_message_exit_container(answer) >= 0;
}

bool ReadRecording(sd_bus_message* answer, CameraView& view) {
    int a = 0;
    int b = 0;
    if (sd_bus_message_read(answer, "(bb)", &a, &b) < 0) {
        return false;
    }
    view.recordingA = a != 0;
    view.recordingB = b != 0;
    return true;
}

bool ReadFaults(sd_bus_message* answer, CameraView& view) {
    if (sd_bus_message_enter_container(answer, 'a', "(ss)") < 0) {
        return false;
    }
    view.faults.clear();
    const char* provider = nullptr;
    const char* kind = nullptr;
    while (sd_bus_message_read(answer, "(ss)", &provider, &kind) > 0) {
        view.faults.emplace_back(provider, kind);
    }
    return sd_bus_message_exit_container(answer) >= 0;
}

}  // namespace

bool ReadState(sd_bus_message* answer, CameraView& view) {
    return ReadRelays(answer, view) && ReadHead(answer, view) && ReadRecording(answer, view) &&
           ReadFaults(answer, view);
}

}  // namespace kelto::page
