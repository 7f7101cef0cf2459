#include "handler/SnapshotSaving.h"
#include "handler/VassaApiException.h"
#include "kelto/osa/Exception.h"
#include "tests/fakes/FakeRecordingInformation.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"

#include <type_traits>

namespace kelto::halvek::handler {

namespace {

using ::testing::Property;
using ::testing::Throws;

constexpr const char* forbidden = "Error halvek: Local recording disables saving snapshots to the SD card.";

class SnapshotSaving : public ::testing::Test {
protected:
    const test::LogCapture log;
    test::FakeRecordingInformation recording;
};

TEST_F(SnapshotSaving, IsForbiddenOnTheCardWhileEitherKindOfRecordingRuns) {
    for (const auto& summary :
         {std::array<int32_t, 4>{1, 0, 0, 0}, {0, 1, 0, 0}, {-1, 0, 0, 0}, {0, INT32_MIN, 0, 0}, {2, 3, 0, 0}}) {
        recording.summary = summary;
        EXPECT_FALSE(IsSnapshotSavingAllowed("/media/sd"));
    }
    EXPECT_THAT(log.Lines(), ElementsAre(forbidden, forbidden, forbidden, forbidden, forbidden));
}

TEST_F(SnapshotSaving, IsAllowedOnTheCardWhateverTheOtherTwoNumbersAre) {
    for (const auto& summary : {std::array<int32_t, 4>{0, 0, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}, {0, 0, -1, 7}}) {
        recording.summary = summary;
        EXPECT_TRUE(IsSnapshotSavingAllowed("/media/sd"));
    }
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(SnapshotSaving, AsksInOneSessionWithEverythingSetToZero) {
    recording.summary = {1, 2, 3, 4};
    IsSnapshotSavingAllowed("/media/sd");
    EXPECT_THAT(recording.calls, ElementsAre("init(0)", "summary(77,recording_information,0,0,0,0)", "deinit(77)"));
}

TEST_F(SnapshotSaving, IsMeantToBeUncheckedEverywhereButInTheCardsOwnFolder) {
    recording.summary = {1, 1, 1, 1};
    for (const char* destination :
         {"/media/sd/pics", "/media/sd/", "/media//sd", "/media/sd2", "/media", "media/sd", "/media/SD", "/", ""}) {
        EXPECT_TRUE(IsSnapshotSavingAllowed(destination)) << destination;
    }
    EXPECT_THAT(recording.calls, IsEmpty());
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(SnapshotSaving, IsAllowedWhenTheServiceDoesNotAnswerAndTheSessionIsEnded) {
    recording.summary = {1, 1, 1, 1};
    recording.summaryStatus = VASSA_CORE_NO_SERVICE;
    EXPECT_TRUE(IsSnapshotSavingAllowed("/media/sd"));
    EXPECT_EQ(recording.calls.back(), "deinit(77)");
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(SnapshotSaving, ThrowsWhenASessionCannotBeBegunAndAsksNothing) {
    recording.initStatus = VASSA_CORE_INVALID_ARGUMENT;
    EXPECT_THAT([] { IsSnapshotSavingAllowed("/media/sd"); },
                Throws<VassaApiException>(
                    AllOf(Property(&VassaApiException::what,
                                   StrEq("Failed vassa api call: vassa_api_recording_information_initiator_init( "
                                         "NULL, &cookie, 0, NULL) (a bad argument)")),
                          Property(&VassaApiException::GetStatus, VASSA_CORE_INVALID_ARGUMENT))));
    EXPECT_THAT(recording.calls, ElementsAre("init(0)"));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(SnapshotSaving, ThrowsWhenASessionCannotBeEndedAfterItHasLoggedWhatItFound) {
    recording.deinitStatus = VASSA_CORE_UNKNOWN_COOKIE;
    recording.summary = {1, 0, 0, 0};
    EXPECT_THAT([] { IsSnapshotSavingAllowed("/media/sd"); },
                Throws<VassaApiException>(
                    AllOf(Property(&VassaApiException::what,
                                   StrEq("Failed vassa api call: "
                                         "vassa_api_recording_information_initiator_deinit(cookie) (a stale cookie)")),
                          Property(&VassaApiException::GetStatus, VASSA_CORE_UNKNOWN_COOKIE))));
    EXPECT_THAT(log.Lines(), ElementsAre(forbidden));
}

TEST(VassaApiException, IsARuntimeErrorButNotThePlatformsException) {
    static_assert(std::is_base_of_v<std::runtime_error, VassaApiException>);
    static_assert(!std::is_base_of_v<osa::Exception, VassaApiException>);
    const VassaApiException exception("100 %s of it", static_cast<vassa_core_status>(-5));
    EXPECT_STREQ(exception.what(), "100 %s of it (what?)");
    EXPECT_EQ(exception.GetStatus(), -5);
}

}  // namespace

}  // namespace kelto::halvek::handler
