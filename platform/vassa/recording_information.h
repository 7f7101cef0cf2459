#pragma once

#include <cstdint>

/** What a call of the media library came to; 0 is success. */
enum vassa_core_status : int32_t {
    VASSA_CORE_OK = 0,
    VASSA_CORE_INVALID_ARGUMENT = 1,
    VASSA_CORE_UNKNOWN_COOKIE = 2,
    VASSA_CORE_NO_SERVICE = 3,
};

/** What is recorded on this camera. All functions may be called from any thread and throw nothing. */

/**
 * Begins a session. Touches no bus.
 *
 * @param address  NULL for this camera; there is no other
 * @param cookie   receives what the other functions want
 * @param flags    0
 * @param reserved NULL
 */
vassa_core_status vassa_api_recording_information_initiator_init(const char* address, uint32_t* cookie, uint32_t flags,
                                                                 void* reserved);

/**
 * Asks the recording service for its summary; takes 5 s at most. Video is recorded to the card while a or b is not 0.
 * On failure the outputs are untouched.
 */
vassa_core_status vassa_api_recording_information_get_recording_summary_send(uint32_t cookie, const char* client,
                                                                             int32_t* a, int32_t* b, int32_t* c,
                                                                             int32_t* d);

/** Ends a session. */
vassa_core_status vassa_api_recording_information_initiator_deinit(uint32_t cookie);

/** The status in words. */
const char* vassaCoreStatusToString(vassa_core_status status);
