#include "event/TimerEvent.h"
#include "handler/FolderSize.h"
#include "handler/ShortFileName.h"
#include "tests/fakes/FailingAllocation.h"
#include "tests/unit/handler/FolderFixture.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>

namespace kelto::halvek::handler {

namespace {

namespace fs = std::filesystem;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/** When memory runs out at any point of an action, in turn. */
class OutOfMemory : public FolderFixture {};

TEST_F(OutOfMemory, ThereIsNoShortNameAndNoException) {
    const std::string path = InTarget("12:30:45 front door.jpg");
    std::string name;
    size_t failures = 0;
    for (bool failed = true; failed; failures += failed ? 1 : 0) {
        {
            const test::FailingAllocation failing(failures);
            name = MakeShortFileName(path);
        }
        failed = test::FailingAllocation::HasFailed();
        EXPECT_EQ(name, failed ? "" : InTarget("12_30_45.jpg"));
    }
    EXPECT_GT(failures, 2U);
}

TEST_F(OutOfMemory, TheFoldersSizeIsZero) {
    Put("old", 1, 1000);
    size_t failures = 0;
    for (bool failed = true; failed; failures += failed ? 1 : 0) {
        uint32_t size = 1;
        {
            const test::FailingAllocation failing(failures);
            size = GetDirectorySize(target);
        }
        failed = test::FailingAllocation::HasFailed();
        EXPECT_EQ(size, failed ? 0U : 4096U);
    }
    EXPECT_GT(failures, 1U);
}

TEST_F(OutOfMemory, NoFileIsDeleted) {
    Put("old", 1, 1000);
    size_t failures = 0;
    for (bool failed = true; failed; failures += failed ? 1 : 0) {
        bool deleted = false;
        {
            const test::FailingAllocation failing(failures);
            deleted = DeleteOldestFile(target);
        }
        failed = test::FailingAllocation::HasFailed();
        EXPECT_EQ(deleted, !failed);
        EXPECT_EQ(fs::exists(InTarget("old")), failed);
    }
    EXPECT_GT(failures, 1U);
}

TEST_F(OutOfMemory, TheActionFailsWithALineOrIsWholeAndTheNextOneIsUsable) {
    Configure({{"DestName", "12:30:45 front door.jpg"}});
    const std::string unknown = "Error halvek: FolderEventHandler: Error, unknown exception caught";
    event::TimerEvent event(Event::Properties{});
    size_t failures = 0;
    for (bool failed = true; failed; failures += failed ? 1 : 0) {
        log.Clear();
        {
            const test::FailingAllocation failing(failures);
            handler.PerformAction(event);
        }
        failed = test::FailingAllocation::HasFailed();
        ASSERT_FALSE(Lines().empty());
        EXPECT_THAT(Lines().back(),
                    AnyOf(unknown, "Debug halvek: Copy succeeded", "Debug halvek: Copy really failed now"));
        for (const std::string& name : Names()) {
            EXPECT_EQ(test::ReadWholeFile(InTarget(name)), picture) << name;
            fs::remove(InTarget(name));
        }
    }
    EXPECT_GT(failures, 5U);
    EXPECT_EQ(Lines().back(), "Debug halvek: Copy succeeded");
}

}  // namespace

}  // namespace kelto::halvek::handler
