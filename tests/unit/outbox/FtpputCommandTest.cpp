#include "companions/outbox/FtpputCommand.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kelto::halvek::outbox {
namespace {

std::optional<FtpputCommand> Parse(std::vector<std::string> words) {
    words.insert(words.begin(), "ftpput");
    std::vector<char*> pointers;
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    return FtpputCommand::Parse(static_cast<int>(words.size()), pointers.data());
}

TEST(FtpputCommandTest, HasAccountHostRemoteAndLocal) {
    const auto command = Parse({"-u", "me", "-p", "pw", "host", "/remote", "local"});
    ASSERT_TRUE(command);
    EXPECT_EQ(command->header.user, "me");
    EXPECT_EQ(command->header.password, "pw");
    EXPECT_EQ(command->header.host, "host");
    EXPECT_EQ(command->header.port, 21);
    EXPECT_EQ(command->header.remote, "/remote");
    EXPECT_EQ(command->local, "local");
}

TEST(FtpputCommandTest, WithoutARemoteNameItIsTheLocalOneAndWithoutAnAccountNobodys) {
    const auto command = Parse({"host", "local"});
    ASSERT_TRUE(command);
    EXPECT_EQ(command->header.remote, "local");
    EXPECT_EQ(command->local, "local");
    EXPECT_EQ(command->header.user, "anonymous");
}

TEST(FtpputCommandTest, OptionsMayStandBehindWords) {
    const auto command = Parse({"host", "-P", "2121", "remote", "local", "-v"});
    ASSERT_TRUE(command);
    EXPECT_EQ(command->header.port, 2121);
}

TEST(FtpputCommandTest, AHostMayHaveAPortAndAnAddressManyColons) {
    EXPECT_EQ(Parse({"host:99", "x", "y"})->header.port, 99);
    EXPECT_EQ(Parse({"[::1]:99", "x", "y"})->header.host, "::1");
    EXPECT_EQ(Parse({"[::1]:99", "x", "y"})->header.port, 99);
    EXPECT_EQ(Parse({"fe80::1", "x", "y"})->header.host, "fe80::1");
}

TEST(FtpputCommandTest, AnEmptyWordOfTheSettingsShiftsTheOthers) {
    // "-u" swallows "-p", so the password is the host, and there is a word too many.
    EXPECT_FALSE(Parse({"-u", "-p", "pw", "host", "/remote", "local"}));
}

TEST(FtpputCommandTest, WordsThatTheAppletDoesNotTake) {
    EXPECT_FALSE(Parse({}));
    EXPECT_FALSE(Parse({"host"}));
    EXPECT_FALSE(Parse({"a", "b", "c", "d"}));
    EXPECT_FALSE(Parse({"-x", "host", "local"}));
    EXPECT_FALSE(Parse({"-P", "0", "host", "local"}));
    EXPECT_FALSE(Parse({"-P", "no-such-service", "host", "local"}));
}

}  // namespace
}  // namespace kelto::halvek::outbox
