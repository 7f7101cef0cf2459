#include "companions/mqtt/BrokerAddress.h"

#include <gmock/gmock.h>

namespace kelto::halvek::mqtt {

namespace {

TEST(BrokerAddressTest, ItHasASchemeAHostAndAPort) {
    EXPECT_EQ(BrokerAddress::Parse("mqtts://broker.example:8884"), (BrokerAddress{"broker.example", 8884, true}));
    EXPECT_EQ(BrokerAddress::Parse("mqtt://10.0.0.1:1884"), (BrokerAddress{"10.0.0.1", 1884, false}));
}

TEST(BrokerAddressTest, WithoutAPortItIsTheUsualOne) {
    EXPECT_EQ(BrokerAddress::Parse("mqtts://b")->port, 8883);
    EXPECT_EQ(BrokerAddress::Parse("mqtt://b")->port, 1883);
}

TEST(BrokerAddressTest, AnAddressOfTheNewKindStandsInBrackets) {
    EXPECT_EQ(BrokerAddress::Parse("mqtts://[fe80::1]:99"), (BrokerAddress{"fe80::1", 99, true}));
    EXPECT_EQ(BrokerAddress::Parse("mqtt://[::1]")->Text(), "mqtt://[::1]:1883");
}

TEST(BrokerAddressTest, AnythingElseIsNone) {
    for (const char* text :
         {"", "broker", "http://b", "mqtt://", "mqtt://:1", "mqtt://b:", "mqtt://b:0", "mqtt://b:65536", "mqtt://b:1x",
          "mqtt://b/path", "mqtt://u@b", "mqtt://[::1", "mqtt://[::1]x", "MQTT://b"}) {
        EXPECT_EQ(BrokerAddress::Parse(text), std::nullopt) << text;
    }
}

}  // namespace

}  // namespace kelto::halvek::mqtt
