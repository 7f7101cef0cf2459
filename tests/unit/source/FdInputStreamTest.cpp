#include "source/FdInputStream.h"
#include "tests/support/Fifo.h"
#include "tests/support/TempDir.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <string>

namespace kelto::halvek::source {

namespace {

class FdInputStreamTest : public ::testing::Test {
protected:
    FdInputStreamTest() : fd(open(fifo.GetPath().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {}
    ~FdInputStreamTest() override { close(fd); }

    const test::TempDir folder;
    const test::Fifo fifo{folder.PathOf("pipe")};
    const int fd;
    std::string line;
};

TEST_F(FdInputStreamTest, WhatFollowsALineStaysInThePipe) {
    fifo.Write("one\ntwo\n");
    FdInputStream stream(fd);
    EXPECT_TRUE(std::getline(stream, line));
    EXPECT_EQ(line, "one");
    EXPECT_EQ(fifo.Read(), "two\n");
}

TEST_F(FdInputStreamTest, TheNextStreamGoesOnWhereTheLastOneEnded) {
    fifo.Write("one\ntwo\n");
    std::getline(*std::make_unique<FdInputStream>(fd), line);
    FdInputStream stream(fd);
    EXPECT_TRUE(std::getline(stream, line));
    EXPECT_EQ(line, "two");
}

TEST_F(FdInputStreamTest, APartOfALineIsALineOnceThePipeIsEmpty) {
    fifo.Write("par");
    FdInputStream stream(fd);
    EXPECT_TRUE(std::getline(stream, line));
    EXPECT_EQ(line, "par");
    EXPECT_TRUE(stream.eof());
    EXPECT_FALSE(std::getline(stream, line));
}

TEST_F(FdInputStreamTest, AnEmptyPipeFailsTheStream) {
    FdInputStream stream(fd);
    EXPECT_FALSE(std::getline(stream, line));
}

TEST_F(FdInputStreamTest, BytesAbove7fAreOrdinary) {
    fifo.Write("\xFFx\xC3\xA4\n");
    FdInputStream stream(fd);
    EXPECT_TRUE(std::getline(stream, line));
    EXPECT_EQ(line, "\xFFx\xC3\xA4");
}

TEST_F(FdInputStreamTest, DoesNotCloseTheDescriptor) {
    { FdInputStream shortLived(fd); }
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
}

}  // namespace

}  // namespace kelto::halvek::source
