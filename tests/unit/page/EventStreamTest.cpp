#include "companions/page/EventRing.h"
#include "companions/page/EventStream.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace kelto::page {
namespace {

const std::string beginning = "retry: 1000\n\n";

std::string Event(uint64_t id, const std::string& name, const std::string& data) {
    return "id: " + std::to_string(id) + "\nevent: " + name + "\ndata: " + data + "\n\n";
}

/** Everything that is to be sent now, so many bytes at a time. */
std::string ReadAll(EventStream& stream, size_t atATime = 4'096) {
    std::array<char, 4'096> buffer{};
    std::string read;
    while (const size_t length = stream.Read({buffer.data(), atATime})) {
        read.append(buffer.data(), length);
    }
    return read;
}

class EventStreamTest : public ::testing::Test {
protected:
    void Add(int count) {
        for (int i = 0; i < count; ++i) {
            ring.Add("said", "1");
        }
    }

    EventRing ring{1'000};
};

TEST_F(EventStreamTest, ANewBrowserHearsOfWhatComesFromNowOn) {
    Add(3);
    EventStream stream(ring, "");
    EXPECT_EQ(ReadAll(stream), beginning);
    Add(2);
    EXPECT_EQ(ReadAll(stream), Event(1'003, "said", "1") + Event(1'004, "said", "1"));
    EXPECT_EQ(ReadAll(stream), "");
}

TEST_F(EventStreamTest, ABrowserThatComesBackGetsWhatItMissed) {
    Add(3);
    EventStream stream(ring, "1000");
    EXPECT_EQ(ReadAll(stream), beginning + Event(1'001, "said", "1") + Event(1'002, "said", "1"));
}

TEST_F(EventStreamTest, AnEventMayGoOutByteByByte) {
    EventStream stream(ring, "");
    Add(2);
    EXPECT_EQ(ReadAll(stream, 1), beginning + Event(1'000, "said", "1") + Event(1'001, "said", "1"));
}

TEST_F(EventStreamTest, ACursorThatIsTooOldGetsAResetAndTheNumberOfWhatItMissed) {
    Add(2'000);
    EventStream stream(ring, "1000");
    EXPECT_EQ(ReadAll(stream), beginning + Event(2'999, "reset", "{\"missed\":1999}"));
    Add(1);
    EXPECT_EQ(ReadAll(stream), Event(3'000, "said", "1"));
}

TEST_F(EventStreamTest, ACursorThatIsNoneOfOursGetsAResetAndHasMissedNothingOfOurs) {
    Add(3);
    for (const char* const cursor : {"0", "998", "1003", "-1", "+1000", "x", "1000x", " 1000", "1000\n1001", "0x3e8",
                                     "18446744073709551615", "99999999999999999999999"}) {
        EventStream stream(ring, cursor);
        EXPECT_EQ(ReadAll(stream), beginning + Event(1'002, "reset", "{\"missed\":0}")) << cursor;
    }
}

TEST_F(EventStreamTest, ABrowserThatReadsTooSlowlyIsToldHowMuchItMissedAndGoesOn) {
    EventStream stream(ring, "");
    Add(1);
    EXPECT_EQ(ReadAll(stream), beginning + Event(1'000, "said", "1"));
    Add(1'025);
    EXPECT_EQ(ReadAll(stream), Event(2'025, "reset", "{\"missed\":1025}"));
}

TEST_F(EventStreamTest, WhatIsHalfSentGoesOutToItsEndHoweverOldItIs) {
    EventStream stream(ring, "");
    Add(1);
    std::array<char, 20> buffer{};
    std::string read(buffer.data(), stream.Read(buffer));
    read.assign(buffer.data(), read.size());
    read.append(buffer.data(), stream.Read(buffer));
    Add(2'000);
    EXPECT_EQ(read + ReadAll(stream),
              beginning + Event(1'000, "said", "1") + Event(3'000, "reset", "{\"missed\":2000}"));
}

TEST_F(EventStreamTest, ACommentIsSentOnceAndOnlyIfThereIsNothingElse) {
    EventStream stream(ring, "");
    ReadAll(stream);
    stream.RequestComment();
    EXPECT_EQ(ReadAll(stream), ": still here\n\n");
    stream.RequestComment();
    Add(1);
    EXPECT_EQ(ReadAll(stream), Event(1'000, "said", "1"));
}

}  // namespace
}  // namespace kelto::page
