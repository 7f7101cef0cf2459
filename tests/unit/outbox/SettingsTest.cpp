#include "companions/outbox/Settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kelto::halvek::outbox {
namespace {

Settings Parse(const std::string& text, const std::set<std::string>& protocols = Settings::LibraryProtocols()) {
    return Settings::Parse(companion::ConfigFile("conf", text), {}, protocols);
}

std::vector<std::string> FindingsOf(const Settings& settings) {
    std::vector<std::string> texts;
    for (const Finding& finding : settings.findings) {
        texts.push_back(finding.place + ": " + finding.text);
    }
    return texts;
}

TEST(SettingsTest, SizesAndAgesHaveUnits) {
    const Settings settings = Parse("[Outbox]\nSpoolLimit=2M\nRamLimit=3K\nFlashBudget=7\nMaxAge=90\nMaxAge.mail=2h\n");
    EXPECT_TRUE(settings.findings.empty());
    EXPECT_EQ(settings.spoolLimit, 2U << 20U);
    EXPECT_EQ(settings.ramLimit, 3U << 10U);
    EXPECT_EQ(settings.flashBudget, 7U);
    EXPECT_EQ(settings.maxAge, 90'000);
    EXPECT_EQ(settings.maxAgeMail, 7'200'000);
}

TEST(SettingsTest, WithoutAFileTheDefaultsHold) {
    const Settings settings = Settings::Load("/not/there", {});
    EXPECT_TRUE(settings.findings.empty());
    EXPECT_EQ(settings.spoolLimit, 16U << 20U);
    EXPECT_EQ(settings.ramLimit, 4U << 20U);
    EXPECT_EQ(settings.maxAge, 24 * 3'600'000);
    EXPECT_EQ(settings.maxAgeMail, 48 * 3'600'000);
    EXPECT_EQ(settings.durability, Settings::Durability::Late);
    EXPECT_FALSE(settings.postsTrouble);
}

TEST(SettingsTest, TroubleIsToldOnDemand) {
    EXPECT_TRUE(Parse("[Outbox]\nPost=yes\n").postsTrouble);
    EXPECT_FALSE(Parse("[Outbox]\nPost=no\n").postsTrouble);
    EXPECT_THAT(FindingsOf(Parse("[Outbox]\nPost=maybe\n")),
                testing::ElementsAre("conf:2:6: Post: neither yes nor no"));
}

TEST(SettingsTest, AnUrlNamesSchemeHostAndPort) {
    const auto server = [](const std::string& url) { return Parse("[Target a]\nUrl=" + url + "\n").targets[0].server; };
    EXPECT_EQ(server("ftps://h").port, 21);
    EXPECT_EQ(server("ftps-implicit://h").port, 990);
    EXPECT_EQ(server("sftp://h").port, 22);
    EXPECT_EQ(server("ftp://h:2121/").port, 2121);
    EXPECT_EQ(server("ftp://[::1]:2121").host, "::1");
    EXPECT_EQ(server("ftp://[::1]").port, 21);
}

TEST(SettingsTest, WhatTheLibraryCannotDoIsFoundAtTheStart) {
    EXPECT_THAT(FindingsOf(Parse("[Target a]\nUrl=sftp://h\n", {"ftp", "ftps", "smtp", "smtps"})),
                testing::ElementsAre("conf:2:5: Url: this machine's libcurl has no sftp"));
    EXPECT_TRUE(Parse("[Target a]\nUrl=ftps-implicit://h\n", {"ftps"}).findings.empty());
}

TEST(SettingsTest, ASecretInPlainTextHasToBeAllowed) {
    const std::string target = "[Target a]\nUrl=ftp://h\nUser=u\nSecret=NAME\n";
    EXPECT_THAT(FindingsOf(Parse(target)), testing::ElementsAre(testing::HasSubstr("AllowPlain")));
    EXPECT_TRUE(Parse(target + "AllowPlain=yes\n").findings.empty());
    EXPECT_TRUE(Parse("[Target a]\nUrl=ftps://h\nUser=u\nSecret=NAME\n").findings.empty());
    EXPECT_TRUE(Parse("[Mail]\nRelay=smtp://h\nSecret=NAME\n").mail->server.mustUseTls);
    EXPECT_FALSE(Parse("[Mail]\nRelay=smtp://h\nSecret=NAME\nAllowPlain=yes\n").mail->server.mustUseTls);
}

TEST(SettingsTest, TheRelayOfEsmtpIsNamedOrMeant) {
    EXPECT_FALSE(Parse("").mail);
    EXPECT_FALSE(Parse("[Mail]\nRelay=esmtprc\n").mail);
    EXPECT_TRUE(Parse("[Mail]\nRelay=smtps://h\n").mail);
}

}  // namespace
}  // namespace kelto::halvek::outbox
