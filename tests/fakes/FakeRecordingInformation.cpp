#include "tests/fakes/FakeRecordingInformation.h"

namespace {

constexpr uint32_t givenCookie = 77;

kelto::test::FakeRecordingInformation* present = nullptr;

void Note(const std::string& call) {
    present->calls.push_back(call);
}

}  // namespace

vassa_core_status vassa_api_recording_information_initiator_init(const char* address, uint32_t* cookie, uint32_t flags,
                                                                 void* reserved) {
    if (present == nullptr || address != nullptr || flags != 0 || reserved != nullptr) {
        return VASSA_CORE_INVALID_ARGUMENT;
    }
    Note("init(" + std::to_string(*cookie) + ")");
    *cookie = givenCookie;
    return present->initStatus;
}

vassa_core_status vassa_api_recording_information_get_recording_summary_send(uint32_t cookie, const char* client,
                                                                             int32_t* a, int32_t* b, int32_t* c,
                                                                             int32_t* d) {
    if (present == nullptr) {
        return VASSA_CORE_UNKNOWN_COOKIE;
    }
    std::string call = "summary(" + std::to_string(cookie) + "," + client;
    int32_t* const outputs[] = {a, b, c, d};
    for (size_t i = 0; i < 4; ++i) {
        call.append(",").append(std::to_string(*outputs[i]));
        *outputs[i] = present->summary[i];
    }
    Note(call + ")");
    return present->summaryStatus;
}

vassa_core_status vassa_api_recording_information_initiator_deinit(uint32_t cookie) {
    if (present == nullptr) {
        return VASSA_CORE_UNKNOWN_COOKIE;
    }
    Note("deinit(" + std::to_string(cookie) + ")");
    return present->deinitStatus;
}

const char* vassaCoreStatusToString(vassa_core_status status) {
    switch (status) {
        case VASSA_CORE_OK:
            return "all is well";
        case VASSA_CORE_INVALID_ARGUMENT:
            return "a bad argument";
        case VASSA_CORE_UNKNOWN_COOKIE:
            return "a stale cookie";
        case VASSA_CORE_NO_SERVICE:
            return "nobody there";
    }
    return "what?";
}

namespace kelto::test {

FakeRecordingInformation::FakeRecordingInformation() {
    present = this;
}

FakeRecordingInformation::~FakeRecordingInformation() {
    present = nullptr;
}

}  // namespace kelto::test
