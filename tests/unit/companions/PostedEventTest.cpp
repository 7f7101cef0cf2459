#include "companions/common/PostRefusal.h"
#include "companions/common/PostedEvent.h"

#include <gmock/gmock.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelto::companion {

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

using namespace std::string_view_literals;

PostRefusal::Reason ReasonFor(const std::vector<std::pair<std::string_view, std::string_view>>& properties) {
    PostedEvent event("Door");
    try {
        for (const auto& [key, value] : properties) {
            event.Set(key, value);
        }
        static_cast<void>(event.Block());
    } catch (const PostRefusal& refusal) {
        return refusal.GetReason();
    }
    ADD_FAILURE() << "taken";
    return {};
}

std::string RefusalOf(std::string_view text) {
    try {
        PostedEvent::ParseAll(text);
    } catch (const PostRefusal& refusal) {
        return refusal.what();
    }
    return "";
}

TEST(PostedEvent, ABlockIsTheHeaderThePropertiesAndAFullStop) {
    PostedEvent event("Doorbell");
    event.Set("button", "front");
    event.Set("9lives", "");
    event.SetByWord("sum=1+1=2");
    EXPECT_EQ(event.Block(), "[Doorbell]\nbutton=front\n9lives=\nsum=1+1=2\n.\n");
    EXPECT_EQ(PostedEvent("Bare").Block(), "[Bare]\n.\n");
}

TEST(PostedEvent, OfTwoPropertiesWithOneKeyTheLaterCounts) {
    PostedEvent event("Door");
    event.Set("a", "1");
    event.Set("b", "2");
    event.Set("a", "3");
    EXPECT_THAT(event.Properties(), ElementsAre(Pair("a", "3"), Pair("b", "2")));
}

TEST(PostedEvent, TypesThatTheDaemonWouldReadOtherwiseAreRefused) {
    for (const std::string_view type : {""sv, "A]B"sv, "]"sv, "A\nB"sv, "\n"sv, "A\n.\n[B"sv}) {
        EXPECT_THROW(PostedEvent{type}, PostRefusal) << type;
    }
    for (const std::string_view type : {"[A"sv, " "sv, "."sv, "Tür"sv, "\xff"sv, "A=B"sv}) {
        EXPECT_EQ(PostedEvent(type).Type(), type);
    }
}

TEST(PostedEvent, KeysThatTheDaemonWouldReadOtherwiseAreRefused) {
    for (const std::string_view key : {""sv, " a"sv, "_a"sv, "#a"sv, "["sv, "."sv, "\xc3\xa4"sv, "a=b"sv, "a\nb"sv}) {
        EXPECT_EQ(ReasonFor({{key, "1"}}), PostRefusal::Reason::Grammar) << key;
    }
}

TEST(PostedEvent, AValueWithALineBreakIsRefused) {
    for (const std::string_view value : {"\n"sv, "a\n"sv, "a\n.\n[Fire]"sv}) {
        EXPECT_EQ(ReasonFor({{"a", value}}), PostRefusal::Reason::Grammar) << value;
    }
}

TEST(PostedEvent, AWordWithoutAnEqualsSignWouldEndTheBlockAndIsRefused) {
    PostedEvent event("Door");
    EXPECT_THROW(event.SetByWord("abc"), PostRefusal);
    EXPECT_THROW(event.SetByWord(""), PostRefusal);
    EXPECT_THROW(event.SetByWord("=abc"), PostRefusal);
    EXPECT_THAT(event.Properties(), IsEmpty());
}

TEST(PostedEvent, ABlockOf4096BytesIsTheLongest) {
    const size_t around = std::string_view("[Door]\na=\n.\n").size();
    PostedEvent event("Door");
    event.Set("a", std::string(PostedEvent::mostBytes - around, 'x'));
    EXPECT_THAT(event.Block(), SizeIs(4096));
    EXPECT_EQ(ReasonFor({{"a", std::string(PostedEvent::mostBytes - around + 1, 'x')}}), PostRefusal::Reason::Size);
}

TEST(PostedEvent, SeveralBlocksOfATextAreSeveralEvents) {
    const std::vector<PostedEvent> events = PostedEvent::ParseAll("[A]\nx=1\ny=\n.\n[B]\n.\n");
    ASSERT_THAT(events, SizeIs(2));
    EXPECT_EQ(events[0].Block(), "[A]\nx=1\ny=\n.\n");
    EXPECT_EQ(events[1].Block(), "[B]\n.\n");
    EXPECT_THAT(PostedEvent::ParseAll(""), IsEmpty());
    EXPECT_THAT(PostedEvent::ParseAll("[A]\n."), SizeIs(1));
}

TEST(PostedEvent, ATextThatIsNoWholeBlocksIsRefusedWithItsLine) {
    EXPECT_THAT(RefusalOf("[A]\n.\n\n[B]\n.\n"), HasSubstr("line 3: an empty line"));
    EXPECT_THAT(RefusalOf("\n"), HasSubstr("line 1: an empty line"));
    EXPECT_THAT(RefusalOf("x=1\n.\n"), HasSubstr("line 1: a block begins"));
    EXPECT_THAT(RefusalOf("."), HasSubstr("line 1: a block begins"));
    EXPECT_THAT(RefusalOf("[A\n.\n"), HasSubstr("line 1: a header ends"));
    EXPECT_THAT(RefusalOf("["), HasSubstr("line 1: a header ends"));
    EXPECT_THAT(RefusalOf("[A] \n.\n"), HasSubstr("line 1: a header ends"));
    EXPECT_THAT(RefusalOf("[A]B]\n.\n"), HasSubstr("line 1: "));
    EXPECT_THAT(RefusalOf("[]\n.\n"), HasSubstr("line 1: an event needs a type"));
    EXPECT_THAT(RefusalOf("[A]\nx=1\n[B]\n.\n"), HasSubstr("line 3: the block before has no end"));
    EXPECT_THAT(RefusalOf("[A]\nx=1\n"), HasSubstr("line 2: the last block has no end"));
    EXPECT_THAT(RefusalOf("[A]\nabc\n.\n"), HasSubstr("line 2: "));
    EXPECT_THAT(RefusalOf("[A]\n#x=1\n.\n"), HasSubstr("line 2: "));
    EXPECT_THAT(RefusalOf("[A]\n.\r\n"), HasSubstr("line 2: "));
    EXPECT_THAT(RefusalOf("[A]\nx=" + std::string(4096, 'x') + "\n.\n"), HasSubstr("line 3: "));
}

}  // namespace

}  // namespace kelto::companion
