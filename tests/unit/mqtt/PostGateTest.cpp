#include "companions/mqtt/PostGate.h"
#include "tests/support/TempDir.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <random>
#include <string>
#include <utility>

namespace kelto::halvek::mqtt {

namespace {

using Milliseconds = PostGate::Milliseconds;

/** A gate with an event pipe that somebody reads. */
class PostGateTest : public ::testing::Test {
protected:
    PostGateTest() {
        EXPECT_EQ(mkfifo(Path().c_str(), 0600), 0);
        reader = open(Path().c_str(), O_RDONLY | O_NONBLOCK);
        gate.SetLists({"Doorbell", "Front door"}, {"2"});
    }

    ~PostGateTest() override { close(reader); }

    std::string Path() const { return folder.PathOf("halvek.pipe"); }

    const char* Take(const std::string& payload, int at = 0) {
        return gate.Take("Doorbell", payload, false, Milliseconds(at));
    }

    /** All that has been posted. */
    std::string Posted() const {
        std::array<char, 65536> bytes{};
        const ssize_t length = read(reader, bytes.data(), bytes.size());
        return {bytes.data(), length < 0 ? 0 : static_cast<size_t>(length)};
    }

    test::TempDir folder;
    int reader = -1;
    PostGate gate{Path()};
};

TEST_F(PostGateTest, WhatIsAllowedIsPostedWithTheWayThatItCame) {
    EXPECT_STREQ(Take(R"({"button":"front","empty":""})"), "posted");
    EXPECT_EQ(Posted(), "[Doorbell]\nbutton=front\nempty=\nvia=mqtt\n.\n");
}

TEST_F(PostGateTest, ATypeStandsInTheTopicAsItIsPublished) {
    EXPECT_STREQ(gate.Take("Front%20door", "{}", false, {}), "posted");
    EXPECT_EQ(Posted(), "[Front door]\nvia=mqtt\n.\n");
    EXPECT_STREQ(gate.Take("Front door", "{}", false, {}), "type");
}

TEST_F(PostGateTest, EverythingElseIsNoTypeOfOurs) {
    for (const char* level : {"doorbell", "Doorbell2", "Door", "", "#", "Doorbell/x"}) {
        EXPECT_STREQ(gate.Take(level, "{}", false, {}), "type") << level;
    }
    EXPECT_EQ(Posted(), "");
}

TEST_F(PostGateTest, WhatTheBrokerHasKeptIsNeverPosted) {
    EXPECT_STREQ(gate.Take("Doorbell", "{}", true, {}), "retained");
    EXPECT_EQ(Posted(), "");
}

TEST_F(PostGateTest, ARegionMustBeAllowedToo) {
    EXPECT_STREQ(Take(R"({"region":"2"})"), "posted");
    EXPECT_STREQ(Take(R"({"region":"3"})"), "type");
    EXPECT_STREQ(Take(R"({"region":""})"), "type");
}

TEST_F(PostGateTest, WhatHasBeenThroughABrokerIsNotPostedAgain) {
    EXPECT_STREQ(Take(R"({"via":"mqtt"})"), "type");
    EXPECT_STREQ(Take(R"({"via":"door"})"), "posted");
    EXPECT_EQ(Posted(), "[Doorbell]\nvia=mqtt\n.\n");
}

TEST_F(PostGateTest, OnlyAnObjectOfTextsIsTaken) {
    for (const char* payload : {"", "x", "[]", "\"a\"", "null", R"({"a":1})", R"({"a":null})", R"({"a":{"b":"c"}})",
                                R"({"a":"b")", "{\"a\":\"\xff\"}", R"({"a":"b"}x)"}) {
        EXPECT_STREQ(Take(payload), "grammar") << payload;
    }
    EXPECT_EQ(Posted(), "");
}

TEST_F(PostGateTest, WhatTheDaemonWouldTakeForSomethingElseIsRefused) {
    for (const char* payload :
         {R"({"a":"b\nc"})", R"({"a\nb":"c"})", R"({"a=b":"c"})", R"({".":"c"})", R"({"":"c"})", R"({"[x]":"c"})"}) {
        EXPECT_STREQ(Take(payload), "grammar") << payload;
    }
    EXPECT_EQ(Posted(), "");
}

TEST_F(PostGateTest, ItHasAtMostThreeKibibytes) {
    const auto payload = [](size_t size) { return R"({"a":")" + std::string(size - 8, 'x') + "\"}"; };
    EXPECT_STREQ(Take(payload(3072)), "posted");
    EXPECT_STREQ(Take(payload(3073)), "size");
}

TEST_F(PostGateTest, AnIdIsPostedOnce) {
    EXPECT_STREQ(Take(R"({"id":"7"})"), "posted");
    EXPECT_STREQ(Take(R"({"id":"7"})"), "posted");
    EXPECT_EQ(Posted(), "[Doorbell]\nid=7\nvia=mqtt\n.\n");
}

TEST_F(PostGateTest, TheLastSixtyFourIdsAreRemembered) {
    for (int number = 0; number < 65; ++number) {
        ASSERT_STREQ(Take(R"({"id":")" + std::to_string(number) + "\"}", number * 1000), "posted");
    }
    Posted();
    Take(R"({"id":"1"})", 100000);
    EXPECT_EQ(Posted(), "");
    Take(R"({"id":"0"})", 100000);
    EXPECT_NE(Posted(), "");
}

TEST_F(PostGateTest, AnIdThatWasNotPostedMayComeAgain) {
    close(std::exchange(reader, -1));
    EXPECT_STREQ(Take(R"({"id":"7"})"), "no-pipe");
    reader = open(Path().c_str(), O_RDONLY | O_NONBLOCK);
    EXPECT_STREQ(Take(R"({"id":"7"})"), "posted");
    EXPECT_NE(Posted(), "");
}

TEST_F(PostGateTest, TenInARowAreTakenAndThenFiveASecond) {
    for (int number = 0; number < 10; ++number) {
        EXPECT_STREQ(Take("{}"), "posted");
    }
    EXPECT_STREQ(Take("{}"), "rate");
    EXPECT_STREQ(Take("{}", 199), "rate");
    EXPECT_STREQ(Take("{}", 200), "posted");
    EXPECT_STREQ(Take("{}", 300), "rate");
    int posted = 0;
    for (int at = 400; at < 10400; at += 10) {
        posted += std::string(Take("{}", at)) == "posted" ? 1 : 0;
    }
    EXPECT_EQ(posted, 50);
}

TEST_F(PostGateTest, AfterALongRestThereAreTenAgainAndNoMore) {
    for (int number = 0; number < 10; ++number) {
        Take("{}");
    }
    int posted = 0;
    for (int number = 0; number < 20; ++number) {
        posted += std::string(Take("{}", 3600000)) == "posted" ? 1 : 0;
    }
    EXPECT_EQ(posted, 10);
}

TEST_F(PostGateTest, WithoutAPipeItSaysSo) {
    unlink(Path().c_str());
    EXPECT_STREQ(Take("{}"), "no-pipe");
}

TEST_F(PostGateTest, WhateverComesNothingButWholeEventsIsPosted) {
    const std::string alphabet = "{}[]\":,\\nu0a.=\n\xff \t";
    std::minstd_rand random(1);
    for (int round = 0; round < 20000; ++round) {
        std::string payload = random() % 2 == 0 ? R"({"a":")" : "";
        for (uint64_t length = random() % 40; length > 0; --length) {
            payload.push_back(alphabet[random() % alphabet.size()]);
        }
        payload += random() % 2 == 0 ? "\"}" : "";
        const std::string result = Take(payload, round * 1000);
        const std::string posted = Posted();
        ASSERT_EQ(result == "posted", !posted.empty()) << payload;
        if (!posted.empty()) {
            ASSERT_TRUE(posted.starts_with("[Doorbell]\n")) << posted;
            ASSERT_NE(posted.find("\nvia=mqtt\n"), std::string::npos) << posted;
            ASSERT_EQ(posted.find("\n[", 1), std::string::npos) << posted;
            ASSERT_EQ(posted.find("\n.\n"), posted.size() - 3) << posted;
        }
    }
}

}  // namespace

}  // namespace kelto::halvek::mqtt
