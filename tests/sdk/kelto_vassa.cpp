// A camera that records nothing: snapshots may always be saved to its card.
#include "vassa/recording_information.h"

vassa_core_status vassa_api_recording_information_initiator_init(const char*, uint32_t* cookie, uint32_t, void*) {
    *cookie = 1;
    return VASSA_CORE_OK;
}

vassa_core_status vassa_api_recording_information_get_recording_summary_send(uint32_t, const char*, int32_t* a,
                                                                             int32_t* b, int32_t* c, int32_t* d) {
    *a = *b = *c = *d = 0;
    return VASSA_CORE_OK;
}

vassa_core_status vassa_api_recording_information_initiator_deinit(uint32_t) {
    return VASSA_CORE_OK;
}

const char* vassaCoreStatusToString(vassa_core_status status) {
    return status == VASSA_CORE_OK ? "ok" : "failed";
}
