#include "source/PostedBlock.h"
#include "tests/support/Matchers.h"
#include "tests/unit/source/EventServerSourceFixture.h"

namespace kelto::halvek::source {

namespace {

TEST_F(EventServerSourceTest, HeaderAndPropertiesBecomeOneMotionEvent) {
    EXPECT_EQ(EventsOf("[Alarm]\nlevel=3\n.\n"), Events({Made("Alarm", {{"level", "3"}})}));
    EXPECT_EQ(handler.Events().front().kind, "{Event: MotionEvent}");
    EXPECT_EQ(handler.Events().front().priority, 0);
    EXPECT_EQ(handler.Events().front().properties.count("Timestamp"), 1U);
    EXPECT_EQ(handler.Events().front().properties.count("FormattedTime"), 1U);
}

TEST_F(EventServerSourceTest, TheRegionOfAMotionIsItsId) {
    EXPECT_EQ(EventsOf("[MotionDetection]\nregion=2\n.\n"),
              Events({{{"region", "2"}, {"eventId", "2"}, {"eventType", "MotionDetection"}}}));
}

TEST_F(EventServerSourceTest, AMotionWithoutARegionHasItsTypeForItsId) {
    EXPECT_EQ(EventsOf("[MotionDetection]\n.\n"), Events({Made("MotionDetection")}));
}

TEST_F(EventServerSourceTest, TheRegionOfAnythingElseIsNotItsId) {
    EXPECT_EQ(EventsOf("[Motion]\nregion=2\n.\n"), Events({Made("Motion", {{"region", "2"}})}));
}

TEST_F(EventServerSourceTest, AnEmptyRegionIsAnEmptyIdThatOnlyHandlersWithoutIdGet) {
    test::RecordingHandler byType;
    test::RecordingHandler byEmptyId;
    source.AddHandler(&byType, "MotionDetection");
    source.AddHandler(&byEmptyId, "");
    EXPECT_EQ(EventsOf("[MotionDetection]\nregion=\n.\n"),
              Events({{{"region", ""}, {"eventId", ""}, {"eventType", "MotionDetection"}}}));
    EXPECT_EQ(byType.Count(), 0U);
    EXPECT_EQ(byEmptyId.Count(), 0U);
    EXPECT_TRUE(log.Has("Debug halvek: EventServerSource: Event has eventID of: "));
}

TEST_F(EventServerSourceTest, PostedIdsTypesAndStampsAreReplaced) {
    EXPECT_EQ(EventsOf("[A]\neventId=7\neventType=B\nTimestamp=noon\nFormattedTime=noon\n.\n"), Events({Made("A")}));
    EXPECT_NE(handler.Events().front().properties.at("Timestamp"), "noon");
}

TEST_F(EventServerSourceTest, TwoEventsInOneWriteAreReadInTwoPasses) {
    EXPECT_EQ(EventsOf("[A]\nx=1\n.\n[B]\ny=2\n.\n"), Events({Made("A", {{"x", "1"}}), Made("B", {{"y", "2"}})}));
    std::vector<std::string> reading;
    for (const std::string& line : log.Lines()) {
        if (line.find("Select returned") != std::string::npos || line.find("Got line") != std::string::npos) {
            reading.push_back(line);
        }
    }
    EXPECT_THAT(
        reading,
        ElementsAre("Trace halvek: Select returned", "Trace halvek: Got line: [A]", "Trace halvek: Got line: x=1",
                    "Trace halvek: Got line: .", "Trace halvek: Select returned", "Trace halvek: Got line: [B]",
                    "Trace halvek: Got line: y=2", "Trace halvek: Got line: .", "Trace halvek: Select returned",
                    "Trace halvek: Got line: [Last1]", "Trace halvek: Got line: ."));
}

TEST_F(EventServerSourceTest, ABlockWithoutAHeaderTakesTheLastType) {
    EXPECT_EQ(EventsOf("[A]\nz=0\n.\nx=1\n.\n"), Events({Made("A", {{"z", "0"}}), Made("A", {{"x", "1"}})}));
}

TEST_F(EventServerSourceTest, TheEndOfTheDataEndsAnEvent) {
    source.StartListening();
    fifo.Write("[A]\nx=1\n");
    EXPECT_EQ(Received(1), Events({Made("A", {{"x", "1"}})}));
    fifo.Write("y=2\n.\n");
    EXPECT_EQ(Received(2).back(), Made("A", {{"y", "2"}}));
}

TEST_F(EventServerSourceTest, ALineCutByANonAtomicWriteIsTakenAsItStands) {
    source.StartListening();
    fifo.Write("[A]\nspeed=12");
    EXPECT_EQ(Received(1), Events({Made("A", {{"speed", "12"}})}));
    fifo.Write("34\nx=1\n.\n");
    EXPECT_EQ(Received(3), Events({Made("A", {{"speed", "12"}}), Made("A"), Made("A", {{"x", "1"}})}));
}

TEST_F(EventServerSourceTest, AKeyCutByANonAtomicWriteEndsTheEventAndItsRestIsAnother) {
    source.StartListening();
    fifo.Write("[A]\nx=1\nspe");
    EXPECT_EQ(Received(1), Events({Made("A", {{"x", "1"}})}));
    fifo.Write("ed=12\n.\n");
    EXPECT_EQ(Received(2).back(), Made("A", {{"ed", "12"}}));
}

TEST_F(EventServerSourceTest, AHeaderCutByANonAtomicWriteIsLost) {
    source.StartListening();
    fifo.Write("[Al");
    EXPECT_TRUE(log.WaitFor("Debug halvek: \tFind didn't find a ]"));
    EXPECT_EQ(EventsOf("arm]\nx=1\n.\n"), Events());
}

TEST_F(EventServerSourceTest, ALetterOrDigitWithoutAnEqualsSignEndsTheEvent) {
    EXPECT_EQ(EventsOf("[A]\nx=1\nabc\ny=2\n.\n"), Events({Made("A", {{"x", "1"}}), Made("A", {{"y", "2"}})}));
    EXPECT_EQ(EventsOf("7\n"),
              Events({Made("A", {{"x", "1"}}), Made("A", {{"y", "2"}}), Made("Last1"), Made("Last1")}));
}

TEST_F(EventServerSourceTest, LinesThatBeginWithNeitherLetterNorDigitAreIgnored) {
    EXPECT_EQ(EventsOf("[A]\n x=1\n\tx=1\n_x=1\n#x=1\n-x=1\n..\n. \n]x=1\n.\n"), Events({Made("A")}));
}

TEST_F(EventServerSourceTest, ALineThatBeginsWithAnEqualsSignIsIgnored) {
    EXPECT_EQ(EventsOf("[A]\n=x\n=\n.\n"), Events({Made("A")}));
}

TEST_F(EventServerSourceTest, TheFirstEqualsSignSeparatesAndNothingIsTrimmed) {
    EXPECT_EQ(EventsOf("[A]\na=b=c\nd = e \nf=\n.\n"), Events({Made("A", {{"a", "b=c"}, {"d ", " e "}, {"f", ""}})}));
}

TEST_F(EventServerSourceTest, TheLastOfARepeatedKeyCounts) {
    EXPECT_EQ(EventsOf("[A]\nx=1\nx=2\n.\n"), Events({Made("A", {{"x", "2"}})}));
}

TEST_F(EventServerSourceTest, ADotAndACarriageReturnAreNoTerminator) {
    EXPECT_EQ(EventsOf("[A]\n.\r\nx=1\r\n.\n"), Events({Made("A", {{"x", "1\r"}})}));
}

TEST_F(EventServerSourceTest, BytesAbove7fAreOrdinaryInALineAndNoLetterAtItsBegin) {
    EXPECT_EQ(EventsOf("[T\xFCr]\nx=\xFF\xFE\n\xC3\xA4=1\n\xFF=1\n.\n"), Events({Made("T\xFCr", {{"x", "\xFF\xFE"}})}));
}

TEST_F(EventServerSourceTest, AZeroByteStandsInAValue) {
    EXPECT_EQ(EventsOf(std::string("[A]\nx=1\0002\n.\n", 12)), Events({Made("A", {{"x", std::string("1\0002", 3)}})}));
}

TEST_F(EventServerSourceTest, TheHeaderMayStandAnywhereAndTheLastOneWins) {
    EXPECT_EQ(EventsOf("x=1\n[A]\ny=2\n[B]\n.\n"), Events({Made("B", {{"x", "1"}, {"y", "2"}})}));
}

TEST_F(EventServerSourceTest, TextBehindTheFirstClosingBracketIsIgnored) {
    EXPECT_EQ(EventsOf("[A] x=1]\n.\n"), Events({Made("A")}));
}

TEST_F(EventServerSourceTest, AHeaderWithoutItsEndLeavesTheTypeAsItWas) {
    EXPECT_EQ(EventsOf("[A]\n[B\nx=1\n.\n"), Events({Made("A", {{"x", "1"}})}));
    EXPECT_TRUE(log.Has("Debug halvek: \tFind didn't find a ]"));
}

TEST_F(EventServerSourceTest, AnEmptyHeaderFiresNothing) {
    EXPECT_EQ(EventsOf("[A]\n.\n[]\nx=1\n.\ny=2\n.\n"), Events({Made("A")}));
    EXPECT_TRUE(log.Has("Debug halvek: \tEvent type: "));
}

TEST_F(EventServerSourceTest, AnEmptyHeaderIsForgottenOverALaterOneInTheSameBlock) {
    EXPECT_EQ(EventsOf("[]\nx=1\n[B]\n.\n"), Events({Made("B", {{"x", "1"}})}));
}

TEST_F(EventServerSourceTest, BeforeAnyHeaderPropertiesAreDiscarded) {
    EXPECT_EQ(EventsOf("x=1\n.\ny=2\n.\n.\n"), Events());
}

TEST_F(EventServerSourceTest, AnEmptyLineEndsTheThreadAndARestartGoesOnBehindIt) {
    source.StartListening();
    fifo.Write("[A]\nx=1\n\n[B]\ny=2\n.\n");
    EXPECT_TRUE(test::WaitUntil([this] {
        return log.Text().find("Error kelto.osa: Thread EventServerSource ended by an exception: ") !=
               std::string::npos;
    }));
    EXPECT_FALSE(log.Has("Debug halvek: DONE"));
    EXPECT_EQ(handler.Count(), 0U);
    EXPECT_EQ(fifo.CountWaiting(), std::string("[B]\ny=2\n.\n").size());
    source.StopListening();
    EXPECT_EQ(EventsOf(""), Events({Made("B", {{"y", "2"}})}));
}

/** More than a pipe of the usual size holds is posted through a larger one. */
class LargeEventTest : public EventServerSourceTest {
protected:
    static constexpr const char* skipped = "Error halvek: EventServerSource: event of more than 60000 bytes skipped";

    LargeEventTest() { fifo.SetCapacity(size_t{1} << 20); }

    size_t CountSkipped() const { return log.Count(skipped); }
};

TEST_F(LargeEventTest, ALongLineIsTakenWhole) {
    const std::string value(59998, 'v');
    EXPECT_EQ(EventsOf("[A]\nx=" + value + "\n.\n"), Events({Made("A", {{"x", value}})}));
    EXPECT_EQ(CountSkipped(), 0U);
}

TEST_F(LargeEventTest, ALineThatIsAByteLongerSkipsItsEvent) {
    EXPECT_EQ(EventsOf("[A]\ny=1\nx=" + std::string(59999, 'v') + "\nz=1\n.\n"), Events());
    EXPECT_EQ(CountSkipped(), 1U);
}

TEST_F(LargeEventTest, KeysAndValuesOf60000BytesAreAnEvent) {
    const std::string value(29999, 'v');
    EXPECT_EQ(EventsOf("[A]\nx=" + value + "\ny=" + value + "\n.\n"),
              Events({Made("A", {{"x", value}, {"y", value}})}));
    EXPECT_EQ(CountSkipped(), 0U);
}

TEST_F(LargeEventTest, AByteMoreSkipsTheEventAndNothingBehindIt) {
    const std::string value(29999, 'v');
    EXPECT_EQ(EventsOf("[A]\nx=" + value + "\ny=" + value + "v\nz=1\n.\n[B]\n.\n"), Events({Made("B")}));
    EXPECT_EQ(CountSkipped(), 1U);
}

TEST_F(LargeEventTest, WhatARepeatedKeyHasReplacedCountsToo) {
    std::string text = "[A]\n";
    for (int i = 0; i < 7; ++i) {
        text += "x=" + std::string(9999, 'v') + "\n";
    }
    EXPECT_EQ(EventsOf(text + ".\n"), Events());
    EXPECT_EQ(CountSkipped(), 1U);
}

TEST_F(LargeEventTest, WhatIsIgnoredCountsForNothing) {
    std::string text = "[A]\nx=1\n";
    for (int i = 0; i < 7; ++i) {
        text += "#" + std::string(9999, 'v') + "\n";
    }
    EXPECT_EQ(EventsOf(text + ".\n"), Events({Made("A", {{"x", "1"}})}));
}

TEST_F(LargeEventTest, ThousandsOfTheSameAreOneSkippedEvent) {
    std::string text = "[A]\n";
    while (text.size() < 500000) {
        text += "x=1\n";
    }
    EXPECT_EQ(EventsOf(text + ".\n"), Events());
    EXPECT_EQ(CountSkipped(), 1U);
}

TEST_F(LargeEventTest, TheTypeOfASkippedEventCountsForTheNext) {
    EXPECT_EQ(EventsOf("x=" + std::string(70000, 'v') + "\n.\n[A]\nx=" + std::string(50000, 'v') +
                       "\ny=" + std::string(50000, 'v') + "\n.\nz=1\n.\n"),
              Events({Made("A", {{"z", "1"}})}));
    EXPECT_EQ(CountSkipped(), 2U);
}

TEST_F(LargeEventTest, AHeaderBehindALineThatIsTooLongBeginsAnEvent) {
    EXPECT_EQ(EventsOf("[A]\ny=1\nx=" + std::string(200000, 'v') + "\nz=1\n[B]\nw=1\n.\n"),
              Events({Made("B", {{"w", "1"}})}));
    EXPECT_EQ(CountSkipped(), 1U);
}

TEST_F(LargeEventTest, AHeaderInsideAnEventThatIsTooLargeBeginsNone) {
    EXPECT_EQ(EventsOf("[A]\ny=" + std::string(50000, 'v') + "\nx=" + std::string(50000, 'v') + "\n[B]\nw=1\n.\n"),
              Events());
}

TEST_F(LargeEventTest, TheTypeCountsThreeTimesSinceItIsWrittenThreeTimes) {
    // "[]", "eventId=", "eventType=", the stamps and the end have 84 bytes with their line breaks.
    const std::string longest((65536 - 84) / 3, 'T');
    EXPECT_EQ(EventsOf("[" + longest + "]\n.\n"), Events({Made(longest)}));
    EXPECT_EQ(CountSkipped(), 0U);
    const size_t count = handler.Count();
    EXPECT_EQ(EventsOf("[" + longest + "T]\n.\n").size(), count);
    EXPECT_EQ(CountSkipped(), 1U);
}

TEST_F(LargeEventTest, TheRegionOfAMotionCountsTwice) {
    EXPECT_EQ(EventsOf("[MotionDetection]\nregion=" + std::string(40000, '2') + "\n.\n"), Events());
    EXPECT_EQ(CountSkipped(), 1U);
}

TEST_F(LargeEventTest, ManySmallPropertiesThatWouldFillMoreThanAPipeAreSkipped) {
    std::string text = "[A]\n";
    for (int i = 10000; i < 20000; ++i) {
        text += std::to_string(i) + "=\n";
    }
    EXPECT_EQ(EventsOf(text + ".\n"), Events());
    EXPECT_EQ(CountSkipped(), 1U);
}

TEST(PostedBlock, FitsIfWhatIsWrittenOfItFillsAPipeToTheLastByte) {
    // "[A]", "x=", the stamps and the end have 68 bytes with their line breaks.
    const auto isGivenUp = [](size_t size) {
        PostedBlock block;
        block.Begin();
        block.TakeLine("[A]");
        block.GetProperties()["x"] = std::string(size, 'v');
        block.CheckWrittenSize();
        return block.IsGivenUp();
    };
    EXPECT_FALSE(isGivenUp(65536 - 68));
    EXPECT_TRUE(isGivenUp(65536 - 67));
}

}  // namespace

}  // namespace kelto::halvek::source
