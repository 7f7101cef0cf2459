#include "companions/page/Options.h"

#include <getopt.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kelto::page {
namespace {

Options Parse(std::vector<std::string> words) {
    words.insert(words.begin(), "kelto-vcam-page");
    std::vector<char*> pointers;
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    optind = 0;  // begins anew
    return {static_cast<int>(words.size()), pointers.data()};
}

TEST(OptionsTest, WithoutWordsItIsForThisMachineOnly) {
    const Options options = Parse({});
    EXPECT_EQ(options.address, "127.0.0.1");
    EXPECT_EQ(options.port, 8077);
    EXPECT_TRUE(options.hosts.empty());
    EXPECT_EQ(options.listenerPipe, "/var/run/halvek/zz-page.halvek.any");
    EXPECT_EQ(options.eventPipe, "/var/run/halvek.pipe");
    EXPECT_EQ(options.halvekctl, "halvekctl");
    EXPECT_EQ(options.settings, "");
}

TEST(OptionsTest, APipeIsToHearByOrToPostToAsItsNameEnds) {
    const Options options = Parse({"--events", "/x/zz-mine.halvek.any", "--events", "/x/events"});
    EXPECT_EQ(options.listenerPipe, "/x/zz-mine.halvek.any");
    EXPECT_EQ(options.eventPipe, "/x/events");
}

TEST(OptionsTest, AHostMayBeGivenAgainAndAgain) {
    EXPECT_EQ(Parse({"--host", "a", "--host", "b"}).hosts, (std::vector<std::string>{"a", "b"}));
}

TEST(OptionsTest, APortIsANumberOf16Bits) {
    EXPECT_EQ(Parse({"--port", "0"}).port, 0);
    EXPECT_EQ(Parse({"--port", "65535"}).port, 65535);
    for (const char* const port : {"", "65536", "-1", "+1", "80x", " 80", "0x50"}) {
        EXPECT_THROW(Parse({"--port", port}), UsageError) << port;
    }
}

}  // namespace
}  // namespace kelto::page
