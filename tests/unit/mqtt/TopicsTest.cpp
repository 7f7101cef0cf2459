#include "companions/mqtt/Topics.h"

#include <gmock/gmock.h>
#include <mosquitto.h>

#include <random>
#include <string>

namespace kelto::halvek::mqtt {

namespace {

TEST(TopicsTest, TheyStandBelowPrefixAndId) {
    const Topics topics("halvek", "cam1");
    EXPECT_EQ(topics.Status(), "halvek/cam1/status");
    EXPECT_EQ(topics.Info(), "halvek/cam1/info");
    EXPECT_EQ(topics.Stats(), "halvek/cam1/stats");
    EXPECT_EQ(topics.PostResult(), "halvek/cam1/post-result");
    EXPECT_EQ(topics.Event("Doorbell"), "halvek/cam1/event/Doorbell");
    EXPECT_EQ(topics.Alarm("Local", "2"), "halvek/cam1/alarm/Local/2");
    EXPECT_EQ(topics.Discovery(), "homeassistant/device/cam1/config");
}

TEST(TopicsTest, LettersDigitsPointUnderscoreAndHyphenStandForThemselves) {
    EXPECT_EQ(Topics::Level("azAZ09._-"), "azAZ09._-");
}

TEST(TopicsTest, EveryOtherByteIsEscapedInUpperCase) {
    EXPECT_EQ(Topics::Level("a b"), "a%20b");
    EXPECT_EQ(Topics::Level("/+#$%"), "%2F%2B%23%24%25");
    EXPECT_EQ(Topics::Level("T\xc3\xbcr"), "T%C3%BCr");
    EXPECT_EQ(Topics::Level(std::string("\0\n\xff", 3)), "%00%0A%FF");
}

TEST(TopicsTest, ATopicHasAtMost512Bytes) {
    const Topics topics("halvek", "cam1");
    const size_t room = 512 - std::string("halvek/cam1/event/").size();
    EXPECT_EQ(topics.Event(std::string(room, 'x'))->size(), 512U);
    EXPECT_EQ(topics.Event(std::string(room + 1, 'x')), std::nullopt);
    EXPECT_EQ(topics.Event(std::string(room / 3 + 1, ' ')), std::nullopt);
    EXPECT_EQ(topics.Alarm(std::string(300, 'x'), std::string(300, 'x')), std::nullopt);
}

TEST(TopicsTest, WhatMayBePostedIsOneLevelBelowPost) {
    const Topics topics("halvek", "cam1");
    EXPECT_EQ(topics.PostedLevel("halvek/cam1/post/Door"), "Door");
    EXPECT_EQ(topics.PostedLevel("halvek/cam1/post/"), "");
    EXPECT_EQ(topics.PostedLevel("halvek/cam1/post-result"), std::nullopt);
    EXPECT_EQ(topics.PostedLevel("halvek/cam10/post/Door"), std::nullopt);
}

TEST(TopicsTest, WhateverTheTypeTheTopicIsLegal) {
    const Topics topics("halvek", "cam1");
    std::minstd_rand random(1);
    for (int round = 0; round < 20000; ++round) {
        std::string type(1 + random() % 200, '\0');
        for (char& byte : type) {
            byte = static_cast<char>(random() % 256);
        }
        const std::optional<std::string> topic = topics.Event(type);
        if (topic) {
            ASSERT_LE(topic->size(), Topics::longest);
            ASSERT_EQ(mosquitto_pub_topic_check2(topic->data(), topic->size()), MOSQ_ERR_SUCCESS);
            ASSERT_EQ(mosquitto_validate_utf8(topic->data(), static_cast<int>(topic->size())), MOSQ_ERR_SUCCESS);
        }
    }
}

}  // namespace

}  // namespace kelto::halvek::mqtt
