#include "kelto/osa/ReadToEnd.h"
#include "kelto/osa/UniqueFd.h"
#include "tests/support/TempDir.h"

#include <fcntl.h>
#include <gmock/gmock.h>

#include <cerrno>
#include <string>

namespace kelto::osa {

namespace {

class ReadToEndTest : public ::testing::Test {
protected:
    /** A file of that content, open for reading. */
    UniqueFd Open(const std::string& content) const {
        return UniqueFd(open(folder.Write("file", content).c_str(), O_RDONLY | O_CLOEXEC));
    }

    const test::TempDir folder;
};

TEST_F(ReadToEndTest, TakesFilesOfAnySizeWhole) {
    for (const size_t size : {0U, 1U, 16383U, 16384U, 16385U, 100000U}) {
        const std::string written(size, 'x');
        std::string content;
        EXPECT_EQ(ReadToEnd(Open(written).Get(), content), 0);
        EXPECT_EQ(content, written);
    }
}

TEST_F(ReadToEndTest, PutsWhatItReadsBehindWhatIsThere) {
    std::string content = "one";
    EXPECT_EQ(ReadToEnd(Open(std::string("two\0three", 9)).Get(), content), 0);
    EXPECT_EQ(content, std::string("onetwo\0three", 12));
}

TEST_F(ReadToEndTest, StopsWhenThereIsMoreThanWanted) {
    std::string content;
    EXPECT_EQ(ReadToEnd(Open("12345").Get(), content, 5), 0);
    content.clear();
    EXPECT_EQ(ReadToEnd(Open("123456").Get(), content, 5), EFBIG);
}

TEST_F(ReadToEndTest, SaysWhyAReadFailed) {
    std::string content;
    const UniqueFd directory(open(folder.GetPath().c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(ReadToEnd(directory.Get(), content), EISDIR);
}

}  // namespace

}  // namespace kelto::osa
