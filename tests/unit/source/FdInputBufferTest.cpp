#include "source/FdInputBuffer.h"
#include "tests/support/Fifo.h"
#include "tests/support/TempDir.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace kelto::halvek::source {

namespace {

constexpr auto endOfFile = std::char_traits<char>::eof();

class FdInputBufferTest : public ::testing::Test {
protected:
    FdInputBufferTest() : fd(open(fifo.GetPath().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {}
    ~FdInputBufferTest() override { close(fd); }

    const test::TempDir folder;
    const test::Fifo fifo{folder.PathOf("pipe")};
    const int fd;
    FdInputBuffer buffer{fd};
    std::string line;
};

TEST_F(FdInputBufferTest, TakesNothingBeforeItIsAsked) {
    fifo.Write("ab");
    EXPECT_EQ(buffer.in_avail(), 0);
    EXPECT_EQ(fifo.CountWaiting(), 2U);
}

TEST_F(FdInputBufferTest, TakesExactlyOneByteARefill) {
    fifo.Write("abc");
    EXPECT_EQ(buffer.sgetc(), 'a');
    EXPECT_EQ(fifo.CountWaiting(), 2U);
    EXPECT_EQ(buffer.sbumpc(), 'a');
    EXPECT_EQ(fifo.CountWaiting(), 2U);
    EXPECT_EQ(buffer.sgetc(), 'b');
    EXPECT_EQ(fifo.CountWaiting(), 1U);
}

TEST_F(FdInputBufferTest, LookingTwiceTakesNoSecondByte) {
    fifo.Write("ab");
    EXPECT_EQ(buffer.sgetc(), 'a');
    EXPECT_EQ(buffer.sgetc(), 'a');
    EXPECT_EQ(fifo.CountWaiting(), 1U);
}

TEST_F(FdInputBufferTest, ByteFfIsACharacterAndNotTheEnd) {
    fifo.Write("\xFF\x80");
    EXPECT_EQ(buffer.sbumpc(), 0xFF);
    EXPECT_EQ(buffer.sbumpc(), 0x80);
}

TEST_F(FdInputBufferTest, AZeroByteIsACharacter) {
    fifo.Write(std::string(1, '\0'));
    EXPECT_EQ(buffer.sbumpc(), 0);
}

TEST_F(FdInputBufferTest, AnEmptyPipeIsTheEndUntilSomethingComes) {
    EXPECT_EQ(buffer.sgetc(), endOfFile);
    EXPECT_EQ(errno, EAGAIN);
    fifo.Write("a");
    EXPECT_EQ(buffer.sgetc(), 'a');
}

TEST_F(FdInputBufferTest, AnEndOfFileIsTheEnd) {
    const int file = open(folder.Write("file", "a").c_str(), O_RDONLY | O_CLOEXEC);
    FdInputBuffer ofFile(file);
    EXPECT_EQ(ofFile.sbumpc(), 'a');
    EXPECT_EQ(ofFile.sbumpc(), endOfFile);
    close(file);
}

TEST_F(FdInputBufferTest, ADescriptorThatCannotBeReadIsTheEnd) {
    FdInputBuffer closed(-1);
    EXPECT_EQ(closed.sgetc(), endOfFile);
}

TEST_F(FdInputBufferTest, KeepsNothingToPutBackFromBeforeTheRefill) {
    fifo.Write("ab");
    EXPECT_EQ(buffer.sbumpc(), 'a');
    EXPECT_EQ(buffer.sbumpc(), 'b');
    EXPECT_EQ(buffer.sputbackc('b'), 'b');
    EXPECT_EQ(buffer.sputbackc('a'), endOfFile);
}

TEST_F(FdInputBufferTest, ALineIsReadWithoutItsNewlineAndNothingBehindIt) {
    fifo.Write("ab\n\nc");
    EXPECT_EQ(buffer.ReadLine(line, 9), LineFound::Whole);
    EXPECT_EQ(line, "ab");
    EXPECT_EQ(fifo.CountWaiting(), 2U);
    EXPECT_EQ(buffer.ReadLine(line, 9), LineFound::Whole);
    EXPECT_EQ(line, "");
    EXPECT_EQ(fifo.CountWaiting(), 1U);
}

TEST_F(FdInputBufferTest, WhatThePipeHoldsOfALineIsALineAndBehindItThereIsNone) {
    fifo.Write("ab");
    EXPECT_EQ(buffer.ReadLine(line, 9), LineFound::Whole);
    EXPECT_EQ(line, "ab");
    EXPECT_EQ(buffer.ReadLine(line, 9), LineFound::None);
    EXPECT_EQ(line, "");
    fifo.Write("c\n");
    EXPECT_EQ(buffer.ReadLine(line, 9), LineFound::Whole);
    EXPECT_EQ(line, "c");
}

TEST_F(FdInputBufferTest, ALineOfTheGreatestLengthIsWhole) {
    fifo.Write("abc\nabc");
    EXPECT_EQ(buffer.ReadLine(line, 3), LineFound::Whole);
    EXPECT_EQ(line, "abc");
    EXPECT_EQ(buffer.ReadLine(line, 3), LineFound::Whole);
    EXPECT_EQ(line, "abc");
}

TEST_F(FdInputBufferTest, ALineThatIsAByteLongerIsTooLong) {
    fifo.Write("abcd\nabcd");
    EXPECT_EQ(buffer.ReadLine(line, 3), LineFound::TooLong);
    EXPECT_EQ(fifo.CountWaiting(), 4U);
    EXPECT_EQ(buffer.ReadLine(line, 3), LineFound::TooLong);
    EXPECT_EQ(buffer.ReadLine(line, 3), LineFound::None);
}

TEST_F(FdInputBufferTest, AMuchLongerLineIsReadInPieces) {
    fifo.Write(std::string(1000, 'x') + "\ny");
    size_t length = 0;
    LineFound found = LineFound::Beginning;
    while (found == LineFound::Beginning) {
        found = buffer.ReadLine(line, 300);
        EXPECT_LT(line.size(), 600U);
        length += line.size();
    }
    EXPECT_EQ(length, 1000U);
    EXPECT_EQ(fifo.Read(), "y");
}

TEST_F(FdInputBufferTest, AByteThatWasLookedAtBelongsToTheLine) {
    fifo.Write("ab\n");
    EXPECT_EQ(buffer.sgetc(), 'a');
    EXPECT_EQ(buffer.ReadLine(line, 9), LineFound::Whole);
    EXPECT_EQ(line, "ab");
}

TEST_F(FdInputBufferTest, DoesNotCloseTheDescriptor) {
    { FdInputBuffer shortLived(fd); }
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
}

}  // namespace

}  // namespace kelto::halvek::source
