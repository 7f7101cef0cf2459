#include "companions/mqtt/Payloads.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <random>
#include <string>

namespace kelto::halvek::mqtt {

namespace {

using nlohmann::json;

const Identity ours{"0123456789abcdef0123456789abcdef", "2026-11-21T14:00:00.000Z", "camera"};

QueuedEvent Alarm() {
    QueuedEvent event;
    event.event.type = "Alarm";
    event.event.properties = {{"alarmBank", "Local"}, {"alarmIndex", "2"}, {"alarmState", "1"}};
    event.number = 17;
    event.time = 1795269909123;
    event.isClockSynced = true;
    return event;
}

TEST(PayloadsTest, AnEventIsWrittenFieldByField) {
    EXPECT_EQ(Payloads::Event(Alarm(), ours, std::chrono::milliseconds(0), false),
              R"({"v":1,"id":"01234567-17","type":"Alarm","time":"2026-11-21T14:05:09.123Z","clock":"synced",)"
              R"("queued_ms":0,"replayed":false,"lossy":false,)"
              R"("props":{"alarmBank":"Local","alarmIndex":"2","alarmState":"1"}})");
}

TEST(PayloadsTest, AnEventSaysWhatIsOddAboutIt) {
    QueuedEvent event = Alarm();
    event.isClockSynced = false;
    event.event.isLossy = event.event.isStale = event.event.isCut = true;
    const json written = json::parse(Payloads::Event(event, ours, std::chrono::milliseconds(1500), true));
    EXPECT_EQ(written["clock"], "unsynced");
    EXPECT_EQ(written["queued_ms"], 1500);
    EXPECT_EQ(written["replayed"], true);
    EXPECT_EQ(written["lossy"], true);
    EXPECT_EQ(written["stale"], true);
    EXPECT_EQ(written["cut"], true);
}

TEST(PayloadsTest, WhateverAnEventHoldsItIsJson) {
    std::minstd_rand random(1);
    const auto bytes = [&](size_t most) {
        std::string text(random() % most, '\0');
        for (char& byte : text) {
            byte = static_cast<char>(random() % 256);
        }
        return text;
    };
    for (int round = 0; round < 5000; ++round) {
        QueuedEvent event = Alarm();
        event.event.type = bytes(50);
        event.event.properties = {{bytes(20), bytes(200)}, {bytes(20), bytes(200)}};
        ASSERT_TRUE(json::accept(Payloads::Event(event, ours, std::chrono::milliseconds(0), false)));
    }
}

TEST(PayloadsTest, WhoWeAreCanBeReadAgain) {
    const std::optional<Identity> read = Payloads::ReadInfo(Payloads::Info(ours));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->boot, ours.boot);
    EXPECT_EQ(read->since, ours.since);
    const json info = json::parse(Payloads::Info(ours));
    EXPECT_EQ(info["v"], 1);
    EXPECT_EQ(info["host"], "camera");
    EXPECT_TRUE(info.contains("bridge"));
}

TEST(PayloadsTest, AnythingElseIsNobody) {
    for (const char* text : {"", "online", "[]", "{}", R"({"boot":1,"since":"x"})", R"({"boot":"x"})", "\xff", "{"}) {
        EXPECT_EQ(Payloads::ReadInfo(text), std::nullopt) << text;
    }
}

TEST(PayloadsTest, TheCountersAreNumbersOfTheirNames) {
    Counters counters;
    counters.received = 1;
    counters.sent = 2;
    counters.droppedFull = 3;
    counters.droppedOld = 4;
    counters.droppedTopic = 5;
    counters.refused = 6;
    counters.stale = 7;
    counters.refusedPosts = 8;
    EXPECT_EQ(Payloads::Stats(counters),
              R"({"received":1,"sent":2,"dropped_full":3,"dropped_old":4,"dropped_topic":5,"refused":6,"stale":7,)"
              R"("refused_posts":8})");
}

TEST(PayloadsTest, APostIsAnsweredByItsNumber) {
    EXPECT_EQ(Payloads::PostResult(3, "posted"), R"({"n":3,"result":"posted"})");
}

}  // namespace

}  // namespace kelto::halvek::mqtt
