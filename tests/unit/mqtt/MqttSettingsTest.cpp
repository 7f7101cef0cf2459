#include "companions/mqtt/Settings.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>

#include <string>
#include <tuple>
#include <vector>

namespace kelto::halvek::mqtt {

namespace {

using kelto::companion::ConfigFile;
using kelto::companion::Credentials;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

struct ReadSettings {
    Settings settings;
    std::vector<Finding> findings;
};

ReadSettings Read(const std::string& keys) {
    ReadSettings read;
    read.settings = Settings::Read(ConfigFile("f", "[Mqtt]\n" + keys), read.findings);
    return read;
}

/** The one finding of keys that stand below a broker and an id. */
Finding OneFinding(const std::string& keys) {
    const ReadSettings read = Read("Broker=mqtts://b\n" + std::string(keys.starts_with("Id=") ? "" : "Id=c\n") + keys);
    EXPECT_EQ(read.findings.size(), 1U) << keys;
    return read.findings.empty() ? Finding{} : read.findings.front();
}

TEST(MqttSettingsTest, ABrokerIsEnough) {
    const ReadSettings read = Read("Broker=mqtts://b:8884\n");
    EXPECT_THAT(read.findings, IsEmpty());
    EXPECT_EQ(read.settings.broker.port, 8884);
    EXPECT_EQ(read.settings.prefix, "halvek");
    EXPECT_EQ(read.settings.queue, 1000U);
    EXPECT_EQ(read.settings.maxAge, std::chrono::seconds(300));
    EXPECT_FALSE(read.settings.hasDiscovery);
    EXPECT_THAT(read.settings.post, IsEmpty());
    EXPECT_TRUE(read.settings.Takes("anything"));
}

TEST(MqttSettingsTest, WithoutAnIdItIsMadeFromTheMachines) {
    const ReadSettings read = Read("Broker=mqtts://b\nId=\n");
    EXPECT_TRUE(read.settings.isIdMade);
    EXPECT_EQ(read.settings.id.size(), 32U);
}

TEST(MqttSettingsTest, AllKeysAreRead) {
    const ReadSettings read = Read(
        "Broker=mqtts://b\nId=cam_1-x\nPrefix=site/a\nUser=u\nSecret=broker\n"
        "Discovery=homeassistant\nTypes=Door, Alarm\n"
        "Queue=10\nMaxAge=60\nPost=Doorbell,Gate\nPostRegions=2,3\nOnvif=onvif\nSnapshot=on\n");
    EXPECT_THAT(read.findings, IsEmpty());
    const Settings& settings = read.settings;
    EXPECT_EQ(std::tie(settings.id, settings.prefix, settings.user, settings.secretName),
              std::make_tuple("cam_1-x", "site/a", "u", "broker"));
    EXPECT_TRUE(settings.hasDiscovery);
    EXPECT_THAT(settings.types, ElementsAre("Door", "Alarm"));
    EXPECT_TRUE(settings.Takes("Alarm"));
    EXPECT_FALSE(settings.Takes("Alar"));
    EXPECT_EQ(settings.queue, 10U);
    EXPECT_EQ(settings.maxAge, std::chrono::seconds(60));
    EXPECT_THAT(settings.post, ElementsAre("Doorbell", "Gate"));
    EXPECT_THAT(settings.postRegions, ElementsAre("2", "3"));
    EXPECT_EQ(settings.onvif, "onvif");
    EXPECT_TRUE(settings.publishesPictures);
}

TEST(MqttSettingsTest, PicturesAreOffUnlessTheyAreSwitchedOn) {
    EXPECT_FALSE(Read("Broker=mqtts://b\nId=c\n").settings.publishesPictures);
    EXPECT_FALSE(Read("Broker=mqtts://b\nId=c\nSnapshot=off\n").settings.publishesPictures);
}

TEST(MqttSettingsTest, AWrongValueIsNamedWithItsPlace) {
    for (const auto& [keys, text, column] : std::vector<std::tuple<std::string, std::string, unsigned>>{
             {"Id=a b", "letters, digits", 4},
             {"Prefix=a//b", "single slashes", 8},
             {"Prefix=#", "single slashes", 8},
             {"Discovery=on", "homeassistant or off", 11},
             {"Queue=0", "from 1 to", 7},
             {"Queue=ten", "from 1 to", 7},
             {"MaxAge=-1", "from 1 to", 8},
             {"MaxAge=604801", "from 1 to 604800", 8},
             {"Types=Door*", "exact names", 7},
             {"Types=Door,,Gate", "is empty", 7},
             {"Post=*", "exact types", 6},
             {"Post=a]b", "exact types", 6},
             {"Onvif=/x", "single slashes", 7},
             {"Secret=s", "without a User", 8},
             {"AllowPlain=1", "yes or no", 12},
             {"Snapshot=yes", "on or off", 10},
             {"CaFile=relative", "path from the root", 8},
             {"CaFile=/nowhere/ca", "cannot be read", 8},
             {"Broker2=x", "there is no key Broker2", 1},
         }) {
        const Finding finding = OneFinding(keys + "\n");
        EXPECT_TRUE(finding.isError);
        EXPECT_THAT(finding.text, HasSubstr(text));
        EXPECT_EQ(finding.place.column, column) << keys;
    }
}

TEST(MqttSettingsTest, AllThatIsWrongIsSaidAtOnce) {
    const ReadSettings read = Read("Broker=x\nQueue=0\nQueue=1\nnonsense\n[Other]\n");
    std::vector<unsigned> lines;
    for (const Finding& finding : read.findings) {
        lines.push_back(finding.place.line);
    }
    EXPECT_THAT(lines, testing::UnorderedElementsAre(2, 4, 5, 6));
}

TEST(MqttSettingsTest, AMissingGroupAndAMissingBrokerAreErrors) {
    std::vector<Finding> findings;
    Settings::Read(ConfigFile("f", ""), findings);
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_THAT(findings[0].text, HasSubstr("[Mqtt] is missing"));
    EXPECT_THAT(Read("Id=c\n").findings.at(0).text, HasSubstr("Broker is missing"));
}

TEST(MqttSettingsTest, ASecretGoesInTheClearOnlyIfThatIsSaid) {
    const std::string keys = "Broker=mqtt://b\nId=c\nUser=u\nSecret=s\n";
    ASSERT_EQ(Read(keys).findings.size(), 1U);
    EXPECT_THAT(Read(keys).findings[0].text, HasSubstr("in the clear"));
    EXPECT_THAT(Read(keys + "AllowPlain=yes\n").findings, IsEmpty());
}

TEST(MqttSettingsTest, CertificatesAreForTlsOnly) {
    const ReadSettings read = Read("Broker=mqtt://b\nId=c\nCaFile=/etc/passwd\n");
    ASSERT_EQ(read.findings.size(), 1U);
    EXPECT_THAT(read.findings[0].text, HasSubstr("for mqtts:// only"));
}

TEST(MqttSettingsTest, SecretAndKeyComeFromTheServiceManager) {
    const test::TempDir folder;
    folder.Write("secrets", "s=hunter2\n");
    const ConfigFile file("f", "[Mqtt]\nBroker=mqtts://b\nId=c\nUser=u\nSecret=s\nCert=/etc/passwd\n");
    std::vector<Finding> findings;
    Settings settings = Settings::Read(file, findings);
    settings.Resolve(Credentials::OfFolder(folder.GetPath()), file, findings);
    EXPECT_EQ(settings.password, "hunter2");
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_THAT(findings[0].text, HasSubstr("client.key"));
    EXPECT_EQ(findings[0].place.line, 6U);
}

TEST(MqttSettingsTest, ASecretThatWasNotHandedOverIsNamedAndNotShown) {
    const test::TempDir folder;
    folder.Write("secrets", "other=hunter2\n");
    const ConfigFile file("f", "[Mqtt]\nBroker=mqtts://b\nId=c\nUser=u\nSecret=s\n");
    std::vector<Finding> findings;
    Settings settings = Settings::Read(file, findings);
    settings.Resolve(Credentials::OfFolder(folder.GetPath()), file, findings);
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].text, "there is no s among the secrets");
    EXPECT_EQ(findings[0].place.column, 8U);
}

}  // namespace

}  // namespace kelto::halvek::mqtt
