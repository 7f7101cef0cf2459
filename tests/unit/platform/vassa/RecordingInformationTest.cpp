#include "tests/fakes/ScriptedService.h"
#include "tests/support/PrivateBus.h"
#include "tests/unit/platform/interfaces/InterfaceFile.h"
#include "vassa/recording_information.h"

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using kelto::interfaces::InterfaceFile;
using kelto::test::PrivateBus;
using kelto::test::ScriptedService;
using ::testing::ElementsAre;

using Summary = std::array<int32_t, 4>;

constexpr Summary untouched = {-11, -12, -13, -14};

vassa_core_status GetSummary(uint32_t cookie, Summary& summary) {
    return vassa_api_recording_information_get_recording_summary_send(cookie, "halvek", &summary[0], &summary[1],
                                                                      &summary[2], &summary[3]);
}

class RecordingInformation : public ::testing::Test {
protected:
    RecordingInformation() {
        EXPECT_EQ(vassa_api_recording_information_initiator_init(nullptr, &cookie, 0, nullptr), VASSA_CORE_OK);
    }

    const PrivateBus daemon;
    ScriptedService service{"RecordingInformation"};
    uint32_t cookie = 0;
    Summary summary = untouched;
};

TEST_F(RecordingInformation, TheSummaryIsAskedForAndTakenAsTheInterfaceFileSays) {
    const InterfaceFile file("RecordingInformation");
    service.Answer("GetSummary", {1, 0, -7, INT32_MAX});
    EXPECT_EQ(GetSummary(cookie, summary), VASSA_CORE_OK);
    EXPECT_THAT(summary, ElementsAre(1, 0, -7, INT32_MAX));
    EXPECT_THAT(service.Calls(), ElementsAre(ScriptedService::Call{.interface = file.GetName(),
                                                                   .method = "GetSummary",
                                                                   .signature = file.GetMethods().at("GetSummary").in,
                                                                   .arguments = {std::string("halvek")}}));
    EXPECT_EQ(file.GetMethods().at("GetSummary").out, "iiii");
    EXPECT_EQ(file.GetMethods().size(), 1U);
}

TEST_F(RecordingInformation, AnErrorOfTheServiceIsAStatusAndTouchesNothing) {
    service.Fail("GetSummary", "com.kelto.Error.Busy", "busy");
    EXPECT_EQ(GetSummary(cookie, summary), VASSA_CORE_NO_SERVICE);
    EXPECT_EQ(summary, untouched);
}

TEST_F(RecordingInformation, AReplyWithTooFewNumbersIsAStatusAndTouchesNothing) {
    service.Answer("GetSummary", {1, 2, 3});
    EXPECT_EQ(GetSummary(cookie, summary), VASSA_CORE_NO_SERVICE);
    EXPECT_EQ(summary, untouched);
}

TEST_F(RecordingInformation, ACookieEndsWithItsSession) {
    service.Answer("GetSummary", {0, 0, 0, 0});
    EXPECT_EQ(vassa_api_recording_information_initiator_deinit(cookie), VASSA_CORE_OK);
    EXPECT_EQ(GetSummary(cookie, summary), VASSA_CORE_UNKNOWN_COOKIE);
    EXPECT_EQ(summary, untouched);
    EXPECT_EQ(vassa_api_recording_information_initiator_deinit(cookie), VASSA_CORE_UNKNOWN_COOKIE);
    EXPECT_TRUE(service.Calls().empty());
}

TEST_F(RecordingInformation, EachSessionHasACookieOfItsOwn) {
    uint32_t other = 0;
    EXPECT_EQ(vassa_api_recording_information_initiator_init(nullptr, &other, 0, nullptr), VASSA_CORE_OK);
    EXPECT_NE(other, cookie);
    EXPECT_EQ(vassa_api_recording_information_initiator_deinit(other), VASSA_CORE_OK);
    service.Answer("GetSummary", {0, 0, 0, 0});
    EXPECT_EQ(GetSummary(cookie, summary), VASSA_CORE_OK);
}

TEST_F(RecordingInformation, ASessionNeedsAPlaceForItsCookieAndKnowsNoOtherCamera) {
    EXPECT_EQ(vassa_api_recording_information_initiator_init(nullptr, nullptr, 0, nullptr),
              VASSA_CORE_INVALID_ARGUMENT);
    uint32_t other = 99;
    EXPECT_EQ(vassa_api_recording_information_initiator_init("elsewhere", &other, 0, nullptr),
              VASSA_CORE_INVALID_ARGUMENT);
    EXPECT_EQ(other, 99U);
}

TEST(RecordingInformationWithoutABus, SessionsMayBeginAndEndOnSeveralThreadsAtOnce) {
    const PrivateBus daemon(PrivateBus::State::Absent);
    std::atomic<int> mistakes = 0;
    const auto work = [&] {
        for (int round = 0; round < 20000; ++round) {
            uint32_t cookie = 0;
            mistakes += vassa_api_recording_information_initiator_init(nullptr, &cookie, 0, nullptr) != VASSA_CORE_OK;
            mistakes += vassa_api_recording_information_initiator_deinit(cookie) != VASSA_CORE_OK;
        }
    };
    uint32_t cookie = 0;
    vassa_api_recording_information_initiator_init(nullptr, &cookie, 0, nullptr);
    std::vector<std::jthread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back(work);
    }
    for (int round = 0; round < 2000; ++round) {
        Summary summary = untouched;
        mistakes += GetSummary(cookie, summary) != VASSA_CORE_NO_SERVICE;
        mistakes += GetSummary(0, summary) != VASSA_CORE_UNKNOWN_COOKIE;
    }
    threads.clear();
    EXPECT_EQ(mistakes, 0);
}

TEST(RecordingInformationWithoutABus, BeginningASessionTouchesNoBusAndOnlyTheSummaryFails) {
    const PrivateBus daemon(PrivateBus::State::Absent);
    uint32_t cookie = 0;
    Summary summary = untouched;
    EXPECT_EQ(vassa_api_recording_information_initiator_init(nullptr, &cookie, 0, nullptr), VASSA_CORE_OK);
    EXPECT_EQ(GetSummary(cookie, summary), VASSA_CORE_NO_SERVICE);
    EXPECT_EQ(summary, untouched);
    EXPECT_EQ(vassa_api_recording_information_initiator_deinit(cookie), VASSA_CORE_OK);
}

TEST(RecordingInformationWithoutAService, OnlyTheSummaryFails) {
    const PrivateBus daemon;
    uint32_t cookie = 0;
    Summary summary = untouched;
    vassa_api_recording_information_initiator_init(nullptr, &cookie, 0, nullptr);
    EXPECT_EQ(GetSummary(cookie, summary), VASSA_CORE_NO_SERVICE);
    EXPECT_EQ(summary, untouched);
    vassa_api_recording_information_initiator_deinit(cookie);
}

TEST(RecordingInformationStatus, ZeroIsSuccessAndEveryStatusHasItsWords) {
    EXPECT_EQ(VASSA_CORE_OK, 0);
    EXPECT_STREQ(vassaCoreStatusToString(VASSA_CORE_OK), "success");
    EXPECT_STREQ(vassaCoreStatusToString(VASSA_CORE_INVALID_ARGUMENT), "invalid argument");
    EXPECT_STREQ(vassaCoreStatusToString(VASSA_CORE_UNKNOWN_COOKIE), "unknown cookie");
    EXPECT_STREQ(vassaCoreStatusToString(VASSA_CORE_NO_SERVICE), "no answer from the recording service");
    EXPECT_STREQ(vassaCoreStatusToString(static_cast<vassa_core_status>(77)), "unknown status");
}

}  // namespace
