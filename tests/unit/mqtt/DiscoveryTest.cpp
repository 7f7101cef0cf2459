#include "companions/mqtt/Discovery.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <random>
#include <string>

namespace kelto::halvek::mqtt {

namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

Settings Camera() {
    Settings settings;
    settings.id = "cam1";
    return settings;
}

const CameraFacts described{{"Doorbell", "Front door"}, {{"Local", "2"}}};

TEST(DiscoveryTest, TheDeviceIsTheCamera) {
    const json payload = json::parse(Discovery::Payload(Camera(), described));
    EXPECT_EQ(payload["dev"]["ids"], json::array({"halvek_cam1"}));
    EXPECT_EQ(payload["dev"]["name"], "cam1");
    EXPECT_EQ(payload["o"]["name"], "halvek-mqtt");
    EXPECT_EQ(payload["avty_t"], "halvek/cam1/status");
}

TEST(DiscoveryTest, ATypeIsAnEventThatNamesItself) {
    const json event = json::parse(Discovery::Payload(Camera(), described))["cmps"]["event_Front%20door"];
    EXPECT_EQ(event["p"], "event");
    EXPECT_EQ(event["stat_t"], "halvek/cam1/event/Front%20door");
    EXPECT_EQ(event["evt_typ"], json::array({"Front door"}));
    EXPECT_EQ(event["uniq_id"], "halvek_cam1_event_Front%20door");
    EXPECT_NE(event["val_tpl"].get<std::string>().find("event_type=value_json.type"), std::string::npos);
}

TEST(DiscoveryTest, AnAlarmIsASensorWhoseStateNeverExpires) {
    const json alarm = json::parse(Discovery::Payload(Camera(), described))["cmps"]["alarm_Local_2"];
    EXPECT_EQ(alarm["p"], "binary_sensor");
    EXPECT_EQ(alarm["stat_t"], "halvek/cam1/alarm/Local/2");
    EXPECT_EQ(alarm["pl_on"], "ON");
    EXPECT_EQ(alarm["pl_off"], "OFF");
    EXPECT_FALSE(alarm.contains("exp_aft"));
}

TEST(DiscoveryTest, ThePictureIsAnImageIfItIsPublished) {
    Settings settings = Camera();
    EXPECT_FALSE(json::parse(Discovery::Payload(settings, described))["cmps"].contains("snapshot"));
    settings.publishesPictures = true;
    const json picture = json::parse(Discovery::Payload(settings, described))["cmps"]["snapshot"];
    EXPECT_EQ(picture["p"], "image");
    EXPECT_EQ(picture["img_t"], "halvek/cam1/snapshot");
    EXPECT_EQ(picture["cont_type"], "image/jpeg");
    const json without = json::parse(Discovery::Payload(Camera(), described, {"snapshot"}))["cmps"];
    EXPECT_EQ(without["snapshot"], json({{"p", "image"}}));
}

TEST(DiscoveryTest, OnlyTypesThatArePublishedAreDescribed) {
    Settings settings = Camera();
    settings.types = {"Gate"};
    const json components = json::parse(Discovery::Payload(settings, described))["cmps"];
    EXPECT_FALSE(components.contains("event_Doorbell"));
}

TEST(DiscoveryTest, WhatIsRemovedIsNamedByItsPlatformAlone) {
    const json components =
        json::parse(Discovery::Payload(Camera(), described, {"event_Old", "alarm_Local_9", "sent2"}))["cmps"];
    EXPECT_EQ(components["event_Old"], json({{"p", "event"}}));
    EXPECT_EQ(components["alarm_Local_9"], json({{"p", "binary_sensor"}}));
    EXPECT_EQ(components["sent2"], json({{"p", "sensor"}}));
}

TEST(DiscoveryTest, ItsComponentsCanBeReadAgain) {
    EXPECT_THAT(Discovery::ComponentsIn(Discovery::Payload(Camera(), described)),
                ElementsAre("alarm_Local_2", "dropped", "event_Doorbell", "event_Front%20door", "refused_posts", "sent",
                            "since"));
}

TEST(DiscoveryTest, WhatOthersWriteHasNoneOfOurComponents) {
    for (const char* payload : {"", "[]", "{", "{}", R"({"cmps":{"a":{}}})", R"({"o":{"name":"x"},"cmps":{"a":{}}})",
                                R"({"o":{"name":"halvek-mqtt"},"cmps":[]})", R"({"o":[],"cmps":{"a":{}}})",
                                R"({"o":{"name":1},"cmps":{"a":{}}})"}) {
        EXPECT_THAT(Discovery::ComponentsIn(payload), IsEmpty()) << payload;
    }
}

TEST(DiscoveryTest, WhateverTypesAndAlarmsAreCalledItIsJsonWithTheSameKeys) {
    std::minstd_rand random(1);
    const auto bytes = [&] {
        std::string text(1 + random() % 60, '\0');
        for (char& byte : text) {
            byte = static_cast<char>(random() % 256);
        }
        return text;
    };
    for (int round = 0; round < 2000; ++round) {
        const json payload = json::parse(Discovery::Payload(Camera(), {{bytes()}, {{bytes(), bytes()}}}));
        ASSERT_EQ(payload["cmps"].size(), 6U);
    }
}

}  // namespace

}  // namespace kelto::halvek::mqtt
