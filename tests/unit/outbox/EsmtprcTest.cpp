#include "companions/outbox/Esmtprc.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kelto::halvek::outbox {
namespace {

TEST(EsmtprcTest, WithoutAnythingMailsGoToThisMachine) {
    const Esmtprc file("");
    const Server& server = file.ServerFor("me@x.example");
    EXPECT_EQ(server.host, "localhost");
    EXPECT_EQ(server.port, 25);
    EXPECT_TRUE(server.neverUsesTls);
}

TEST(EsmtprcTest, ReadsServerAccountAndTls) {
    const Esmtprc file(
        "# comment\nhostname = mail.example.org:587\nusername \"me\"\npassword=\"a \\\"b\"\nstarttls=required\n");
    const Server& server = file.ServerFor("me@x.example");
    EXPECT_EQ(server.host, "mail.example.org");
    EXPECT_EQ(server.port, 587);
    EXPECT_EQ(server.user, "me");
    EXPECT_EQ(server.password, "a \"b");
    EXPECT_TRUE(server.mustUseTls);
    EXPECT_FALSE(server.neverUsesTls);
    EXPECT_THAT(file.Warnings(), testing::IsEmpty());
}

TEST(EsmtprcTest, AnIdentityHasAServerOfItsOwn) {
    const Esmtprc file("hostname=first:25\nidentity=me@x.example\nhostname=second:26\n");
    EXPECT_EQ(file.ServerFor("ME@x.example").host, "second");
    EXPECT_EQ(file.ServerFor("you@x.example").host, "first");
}

TEST(EsmtprcTest, WhatItDoesNotKnowItNames) {
    EXPECT_THAT(Esmtprc("\nmda \"procmail\"\n").Warnings(),
                testing::ElementsAre("line 2: mda means nothing to the outbox"));
}

}  // namespace
}  // namespace kelto::halvek::outbox
