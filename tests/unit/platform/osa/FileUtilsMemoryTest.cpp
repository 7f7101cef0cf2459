#include "kelto/osa/FileUtils.h"
#include "tests/fakes/FailingAllocation.h"
#include "tests/support/Matchers.h"
#include "tests/support/TempDir.h"

#include <cstddef>
#include <string>
#include <vector>

namespace kelto::osa {

namespace {

bool CopyWithFailure(const std::string& from, const std::string& to, size_t goodOnes) {
    const test::FailingAllocation failing(goodOnes);
    return FileUtils::CopyFile(from, to, true);
}

TEST(FileUtilsMemory, ACopyThatGetsNoMemoryFailsAndLeavesNothingBehind) {
    const test::TempDir folder;
    const std::string from = folder.Write("a-name-that-is-too-long-to-need-no-memory.jpg", "picture");
    const std::string to = folder.PathOf("another-name-that-is-too-long-to-need-no-memory.jpg");
    size_t failures = 0;
    while (true) {
        const bool copied = CopyWithFailure(from, to, failures);
        if (!test::FailingAllocation::HasFailed()) {
            EXPECT_TRUE(copied);
            break;
        }
        ASSERT_FALSE(copied) << failures;
        std::vector<std::string> files;
        FileUtils::ListFiles(folder.GetPath(), files);
        ASSERT_THAT(files, SizeIs(1)) << failures;
        ++failures;
    }
    EXPECT_GT(failures, 0U);
}

}  // namespace

}  // namespace kelto::osa
