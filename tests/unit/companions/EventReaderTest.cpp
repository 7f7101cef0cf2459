#include "companions/common/EventReader.h"

#include <gmock/gmock.h>

#include <string>
#include <string_view>
#include <vector>

namespace kelto::companion {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

class EventReaderTest : public ::testing::Test {
protected:
    using Milliseconds = EventReader::Milliseconds;

    void Take(std::string_view bytes, int at = 0) { reader.Take(bytes, Milliseconds(at)); }

    std::vector<std::string> Types() const {
        std::vector<std::string> types;
        for (const ReceivedEvent& event : events) {
            types.push_back(event.type);
        }
        return types;
    }

    std::vector<ReceivedEvent> events;
    EventReader reader{[this](const ReceivedEvent& event) { events.push_back(event); }};
};

TEST_F(EventReaderTest, ABlockIsAnEventWithItsTypeAndItsProperties) {
    Take("[Doorbell]\nTimestamp=14:05:09\nbutton=front\n.\n");
    ASSERT_THAT(events, SizeIs(1));
    EXPECT_EQ(events[0].type, "Doorbell");
    EXPECT_THAT(events[0].properties, ElementsAre(Pair("Timestamp", "14:05:09"), Pair("button", "front")));
    EXPECT_FALSE(events[0].isLossy || events[0].isCut || events[0].isUnfinished || events[0].isStale);
    EXPECT_EQ(*events[0].Find("button"), "front");
    EXPECT_EQ(events[0].Find("Button"), nullptr);
}

TEST_F(EventReaderTest, PiecesOfAnySizeMakeTheSameEvents) {
    const std::string_view text = "[A]\nx=1\n.\n[B]\ny=2=3\nz=\n.\n";
    for (size_t size = 1; size <= text.size(); ++size) {
        events.clear();
        for (size_t from = 0; from < text.size(); from += size) {
            Take(text.substr(from, size));
        }
        ASSERT_THAT(Types(), ElementsAre("A", "B")) << size;
        EXPECT_THAT(events[0].properties, ElementsAre(Pair("x", "1"))) << size;
        EXPECT_THAT(events[1].properties, ElementsAre(Pair("y", "2=3"), Pair("z", ""))) << size;
    }
}

TEST_F(EventReaderTest, NothingIsTrimmed) {
    Take("[ A ] rest\nx = 1 \n.\n");
    ASSERT_THAT(events, SizeIs(1));
    EXPECT_EQ(events[0].type, " A ");
    EXPECT_THAT(events[0].properties, ElementsAre(Pair("x ", " 1 ")));
}

TEST_F(EventReaderTest, AHeaderInABlockClosesItAndBeginsTheNext) {
    Take("[A]\nx=1\n[B]\ny=2\n.\n");
    ASSERT_THAT(Types(), ElementsAre("A", "B"));
    EXPECT_TRUE(events[0].isUnfinished);
    EXPECT_THAT(events[0].properties, ElementsAre(Pair("x", "1")));
    EXPECT_FALSE(events[1].isUnfinished);
    EXPECT_THAT(events[1].properties, ElementsAre(Pair("y", "2")));
}

TEST_F(EventReaderTest, ABlockWithoutEndIsClosedAfterASecond) {
    Take("[A]\nx=1\n", 500);
    EXPECT_EQ(reader.Deadline(), Milliseconds(1500));
    reader.CloseOverdue(Milliseconds(1499));
    EXPECT_THAT(events, IsEmpty());
    reader.CloseOverdue(Milliseconds(1500));
    ASSERT_THAT(Types(), ElementsAre("A"));
    EXPECT_TRUE(events[0].isUnfinished);
    EXPECT_EQ(reader.Deadline(), std::nullopt);
}

TEST_F(EventReaderTest, MoreOfABlockDoesNotKeepItOpenForLonger) {
    Take("[A]\n", 0);
    Take("x=1\n", 900);
    EXPECT_EQ(reader.Deadline(), Milliseconds(1000));
    Take("[B]\n", 950);
    EXPECT_EQ(reader.Deadline(), Milliseconds(1950));
}

TEST_F(EventReaderTest, ALineThatNeverEndsIsForgottenWithItsBlock) {
    Take("[A]\nx=1\ny=to", 0);
    reader.CloseOverdue(Milliseconds(1000));
    Take("[B]\n.\n", 1100);
    ASSERT_THAT(Types(), ElementsAre("A", "B"));
    EXPECT_THAT(events[0].properties, ElementsAre(Pair("x", "1")));
    EXPECT_THAT(events[1].properties, IsEmpty());
}

TEST_F(EventReaderTest, NothingIsWaitedForBetweenBlocks) {
    Take("[A]\n.\n", 0);
    EXPECT_EQ(reader.Deadline(), std::nullopt);
    Take("[A", 10);
    EXPECT_EQ(reader.Deadline(), Milliseconds(1010));
}

TEST_F(EventReaderTest, WhatStandsOutsideOfBlocksIsDropped) {
    Take("x=1\n.\n\n[]\ny=2\n.\n[A\nz=3\n.\n");
    EXPECT_THAT(events, IsEmpty());
}

TEST_F(EventReaderTest, LinesThatAreNoPropertiesAreDropped) {
    Take("[A]\n\nword\n=1\n_x=1\n x=1\n. \n.\r\n[\nx=1\n.\n");
    ASSERT_THAT(events, SizeIs(1));
    EXPECT_THAT(events[0].properties, ElementsAre(Pair("x", "1")));
}

TEST_F(EventReaderTest, OfTwoPropertiesOfOneKeyTheLastHolds) {
    Take("[A]\nb=1\na=2\nb=3\na=4\nc=5\n.\n");
    ASSERT_THAT(events, SizeIs(1));
    EXPECT_THAT(events[0].properties, ElementsAre(Pair("b", "3"), Pair("a", "4"), Pair("c", "5")));
}

TEST_F(EventReaderTest, BytesThatAreNoUtf8BecomeReplacementCharactersAndAreTold) {
    Take("[A\xff]\nk\xc3=v\xed\xa0\x80\n.\n[B]\nx=T\xc3\xbcr\n.\n");
    ASSERT_THAT(events, SizeIs(2));
    EXPECT_EQ(events[0].type, "A\uFFFD");
    EXPECT_THAT(events[0].properties, ElementsAre(Pair("k\uFFFD", "v\uFFFD\uFFFD\uFFFD")));
    EXPECT_TRUE(events[0].isLossy);
    EXPECT_EQ(*events[1].Find("x"), "Tür");
    EXPECT_FALSE(events[1].isLossy);
}

TEST_F(EventReaderTest, AnEventHasAtMost256Properties) {
    std::string text = "[A]\n";
    for (int number = 1000; number < 1300; ++number) {
        text += "k" + std::to_string(number) + "=v\n";
    }
    Take(text + "k1000=again\n.\n");
    ASSERT_THAT(events, SizeIs(1));
    EXPECT_THAT(events[0].properties, SizeIs(EventReader::mostProperties));
    EXPECT_EQ(*events[0].Find("k1000"), "again");
    EXPECT_TRUE(events[0].isCut);
}

TEST_F(EventReaderTest, ABlockOf64KiBIsWholeAndALargerOneIsCut) {
    const std::string front = "[A]\na=1\nb=";
    const std::string value(EventReader::largestBlock - front.size() - 1, 'v');
    Take(front + value + "\n.\n");
    Take(front + value + "v\nc=2\n.\n");
    ASSERT_THAT(events, SizeIs(2));
    EXPECT_EQ(*events[0].Find("b"), value);
    EXPECT_FALSE(events[0].isCut);
    EXPECT_THAT(events[1].properties, ElementsAre(Pair("a", "1")));
    EXPECT_TRUE(events[1].isCut);
}

TEST_F(EventReaderTest, ALineWithoutEndTakesNoMoreThanABlock) {
    Take("[A]\nx=");
    const std::string piece(10000, 'v');
    for (int count = 0; count < 1000; ++count) {
        Take(piece);
    }
    Take("\ny=1\n.\n[B]\n.\n");
    ASSERT_THAT(Types(), ElementsAre("A", "B"));
    EXPECT_THAT(events[0].properties, IsEmpty());
    EXPECT_TRUE(events[0].isCut);
    EXPECT_FALSE(events[1].isCut);
}

TEST_F(EventReaderTest, AHeaderThatIsTooLongEndsABlockAndBeginsNone) {
    const std::string header = "[" + std::string(70000, 'h') + "]\n";
    Take("[A]\n" + header + "x=1\n.\n");
    Take("[B]\n");
    for (const char character : header) {
        Take(std::string(1, character));
    }
    Take("x=1\n.\n[C]\n.\n");
    ASSERT_THAT(Types(), ElementsAre("A", "B", "C"));
    EXPECT_THAT(events[0].properties, IsEmpty());
    EXPECT_THAT(events[1].properties, IsEmpty());
}

TEST_F(EventReaderTest, ALeftOverGivesStaleEventsAndNoTornOnes) {
    reader.TakeLeftOver("[A]\nx=1\n.\n[Torn]\ny=\n[B]\n.\n[AlsoTorn]\nz=to");
    Take("rn=1\n.\n[C]\n.\n");
    ASSERT_THAT(Types(), ElementsAre("A", "B", "C"));
    EXPECT_TRUE(events[0].isStale);
    EXPECT_TRUE(events[1].isStale);
    EXPECT_FALSE(events[2].isStale);
    EXPECT_EQ(reader.TornBlocks(), 2);
    EXPECT_EQ(reader.Deadline(), std::nullopt);
}

}  // namespace

}  // namespace kelto::companion
