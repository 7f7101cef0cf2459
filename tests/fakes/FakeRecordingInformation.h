#pragma once

#include "vassa/recording_information.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace kelto::test {

/**
 * The media library's recording information without a bus: for the length of a scope it answers as told and notes its
 * calls. It stands before the real functions at link time; outside any scope every call fails.
 *
 * What it answers is set before other threads call; one scope at a time.
 */
class FakeRecordingInformation {
public:
    FakeRecordingInformation();
    ~FakeRecordingInformation();
    FakeRecordingInformation(const FakeRecordingInformation&) = delete;
    FakeRecordingInformation& operator=(const FakeRecordingInformation&) = delete;

    vassa_core_status initStatus = VASSA_CORE_OK;
    vassa_core_status summaryStatus = VASSA_CORE_OK;
    vassa_core_status deinitStatus = VASSA_CORE_OK;

    /** Given out whatever the status says. */
    std::array<int32_t, 4> summary{};

    /** "init(0)", the cookie as it came in; "summary(77,client,0,0,0,0)", the numbers as they came in; "deinit(77)". */
    std::vector<std::string> calls;
};

}  // namespace kelto::test
