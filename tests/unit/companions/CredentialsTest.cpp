#include "companions/common/Credentials.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>

namespace kelto::companion {

namespace {

class CredentialsTest : public testing::Test {
protected:
    std::string Folder() const { return folder.GetPath(); }
    void WriteSecrets(const std::string& text) const { folder.Write("secrets", text); }

    test::TempDir folder;
};

TEST_F(CredentialsTest, ASecretIsWhatStandsBehindItsFirstEqualsSign) {
    WriteSecrets("# made by hand\n\nbroker=a=b #c \nother=\n");
    const Credentials credentials = Credentials::OfFolder(Folder());
    EXPECT_EQ(credentials.Secret("broker"), "a=b #c ");
    EXPECT_EQ(credentials.Secret("other"), "");
    EXPECT_EQ(credentials.Secret("third"), std::nullopt);
}

TEST_F(CredentialsTest, TheLastOfTwoWithOneNameCounts) {
    WriteSecrets("broker=old\nbroker=new");
    EXPECT_EQ(Credentials::OfFolder(Folder()).Secret("broker"), "new");
}

TEST_F(CredentialsTest, ALineThatIsNoSecretIsNamedWithoutWhatItHolds) {
    WriteSecrets("broker=x\nhunter2\n");
    try {
        Credentials::OfFolder(Folder());
        FAIL() << "it was taken";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string(error.what()), Folder() + "/secrets:2: this is no NAME=value");
    }
}

TEST_F(CredentialsTest, ASecretWithoutANameIsRefused) {
    WriteSecrets("=x\n");
    EXPECT_THROW(Credentials::OfFolder(Folder()), std::runtime_error);
}

TEST_F(CredentialsTest, AFolderWithoutSecretsHasNone) {
    const Credentials credentials = Credentials::OfFolder(Folder());
    EXPECT_TRUE(credentials.HasFolder());
    EXPECT_EQ(credentials.Secret("broker"), std::nullopt);
}

TEST_F(CredentialsTest, AnEmptyCredentialIsNone) {
    folder.Write("empty", "\n");
    folder.Write("client.key", "key");
    const Credentials credentials = Credentials::OfFolder(Folder());
    EXPECT_EQ(credentials.PathOf("client.key"), Folder() + "/client.key");
    EXPECT_EQ(credentials.PathOf("empty"), std::nullopt);
    EXPECT_EQ(credentials.PathOf("absent"), std::nullopt);
}

TEST_F(CredentialsTest, TheManagerSaysWhereTheyAre) {
    WriteSecrets("broker=x\n");
    const test::EnvironmentVariable variable("CREDENTIALS_DIRECTORY", Folder());
    EXPECT_EQ(Credentials::OfThisProcess().Secret("broker"), "x");
}

TEST_F(CredentialsTest, WithoutAManagerThereAreNone) {
    const test::EnvironmentVariable variable("CREDENTIALS_DIRECTORY", std::nullopt);
    const Credentials credentials = Credentials::OfThisProcess();
    EXPECT_FALSE(credentials.HasFolder());
    EXPECT_EQ(credentials.PathOf("client.key"), std::nullopt);
}

}  // namespace

}  // namespace kelto::companion
