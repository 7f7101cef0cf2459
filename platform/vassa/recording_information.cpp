#include "vassa/recording_information.h"

#include "kelto/msgbus/ProviderCall.h"

#include <exception>
#include <mutex>
#include <set>

namespace {

/** The cookies handed out and not yet returned. */
class Sessions {
public:
    static Sessions& Instance() {
        static Sessions sessions;
        return sessions;
    }

    uint32_t Open() {
        const std::lock_guard lock(mutex);
        cookies.insert(++lastCookie);
        return lastCookie;
    }

    bool IsOpen(uint32_t cookie) {
        const std::lock_guard lock(mutex);
        return cookies.count(cookie) != 0;
    }

    bool Close(uint32_t cookie) {
        const std::lock_guard lock(mutex);
        return cookies.erase(cookie) != 0;
    }

private:
    std::mutex mutex;
    uint32_t lastCookie = 0;
    std::set<uint32_t> cookies;
};

}  // namespace

vassa_core_status vassa_api_recording_information_initiator_init(const char* address, uint32_t* cookie, uint32_t,
                                                                 void*) {
    if (address != nullptr || cookie == nullptr) {
        return VASSA_CORE_INVALID_ARGUMENT;
    }
    *cookie = Sessions::Instance().Open();
    return VASSA_CORE_OK;
}

vassa_core_status vassa_api_recording_information_get_recording_summary_send(uint32_t cookie, const char* client,
                                                                             int32_t* a, int32_t* b, int32_t* c,
                                                                             int32_t* d) {
    if (!Sessions::Instance().IsOpen(cookie)) {
        return VASSA_CORE_UNKNOWN_COOKIE;
    }
    try {
        kelto::msgbus::ProviderCall call("RecordingInformation", "GetSummary");
        call.Append(client).Send();
        const int32_t summary[] = {call.ReadInt(), call.ReadInt(), call.ReadInt(), call.ReadInt()};
        *a = summary[0];
        *b = summary[1];
        *c = summary[2];
        *d = summary[3];
        return VASSA_CORE_OK;
    } catch (const std::exception&) {
        return VASSA_CORE_NO_SERVICE;
    }
}

vassa_core_status vassa_api_recording_information_initiator_deinit(uint32_t cookie) {
    return Sessions::Instance().Close(cookie) ? VASSA_CORE_OK : VASSA_CORE_UNKNOWN_COOKIE;
}

const char* vassaCoreStatusToString(vassa_core_status status) {
    switch (status) {
        case VASSA_CORE_OK:
            return "success";
        case VASSA_CORE_INVALID_ARGUMENT:
            return "invalid argument";
        case VASSA_CORE_UNKNOWN_COOKIE:
            return "unknown cookie";
        case VASSA_CORE_NO_SERVICE:
            return "no answer from the recording service";
    }
    return "unknown status";
}
