#include "handler/SnapshotSaving.h"

#include "handler/VassaApiException.h"
#include "kelto/core/Logger.h"
#include "vassa/recording_information.h"

#include <cstdint>

namespace kelto::halvek::handler {

namespace {

void ThrowIfFailed(vassa_core_status status, const char* text) {
    if (status != VASSA_CORE_OK) {
        throw VassaApiException(text, status);
    }
}

/** What else the summary holds does not matter here. */
bool IsRecordingLocally(uint32_t cookie) {
    int32_t a = 0;
    int32_t b = 0;
    int32_t c = 0;
    int32_t d = 0;
    const vassa_core_status status =
        vassa_api_recording_information_get_recording_summary_send(cookie, "recording_information", &a, &b, &c, &d);
    return status == VASSA_CORE_OK && (a != 0 || b != 0);
}

}  // namespace

bool IsSnapshotSavingAllowed(const std::string& destination) {
    if (destination != "/media/sd") {
        return true;
    }
    uint32_t cookie = 0;
    ThrowIfFailed(vassa_api_recording_information_initiator_init(nullptr, &cookie, 0, nullptr),
                  "Failed vassa api call: vassa_api_recording_information_initiator_init( NULL, &cookie, 0, NULL)");
    const bool allowed = !IsRecordingLocally(cookie);
    if (!allowed) {
        core::Logger::GetLogger("halvek").Error("Local recording disables saving snapshots to the SD card.");
    }
    ThrowIfFailed(vassa_api_recording_information_initiator_deinit(cookie),
                  "Failed vassa api call: vassa_api_recording_information_initiator_deinit(cookie)");
    return allowed;
}

}  // namespace kelto::halvek::handler
