#include "kelto/osa/UniqueFd.h"

#include <fcntl.h>
#include <gtest/gtest.h>

namespace kelto::osa {

namespace {

int OpenNull() {
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool IsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

TEST(UniqueFd, ClosesItsDescriptor) {
    const int fd = OpenNull();
    {
        const UniqueFd owner(fd);
        EXPECT_TRUE(owner.IsValid());
        EXPECT_EQ(owner.Get(), fd);
        EXPECT_TRUE(IsOpen(fd));
    }
    EXPECT_FALSE(IsOpen(fd));
}

TEST(UniqueFd, ClosesEarlyAndOnlyOnce) {
    UniqueFd owner(OpenNull());
    const int fd = owner.Get();
    EXPECT_TRUE(owner.Close());
    EXPECT_FALSE(owner.IsValid());
    const int successor = OpenNull();
    EXPECT_EQ(successor, fd);
    EXPECT_TRUE(owner.Close());
    EXPECT_TRUE(IsOpen(successor));
    close(successor);
}

TEST(UniqueFd, ANegativeOneIsNone) {
    UniqueFd owner(-1);
    EXPECT_FALSE(owner.IsValid());
    EXPECT_TRUE(owner.Close());
}

TEST(UniqueFd, TellsThatAClosingFailed) {
    UniqueFd owner(OpenNull());
    close(owner.Get());
    EXPECT_FALSE(owner.Close());
}

}  // namespace

}  // namespace kelto::osa
