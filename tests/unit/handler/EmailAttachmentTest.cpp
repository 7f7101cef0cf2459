#include "kelto/osa/Exception.h"
#include "tests/support/Matchers.h"
#include "tests/unit/handler/EmailFixture.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace kelto::halvek::handler {

namespace {

using test::Base64;
using test::MailText;

constexpr const char* noneFound = "Error halvek: \tEmailEventHandler: the user wanted an attachment, but none is found";

class EmailAttachmentTest : public EmailFixture {};

TEST_F(EmailAttachmentTest, ConfiguringWithAnAttachmentLooksUpTheSnapshot) {
    SetSnapshotPath("/tmp/snapshot/img2.jpg");
    Configure({{"Attachment", "true"}});
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: \t** Contents of Ini group we're configuring",
                                         "Debug halvek: \t** Key\t\tValue", "Debug halvek: \t** Attachment\t\ttrue",
                                         "Debug halvek: \tThe value of _attach: 1",
                                         "Debug halvek: \tThe user wants an email attachment",
                                         "Debug halvek: \tThe attachment we are using: /tmp/snapshot/img2.jpg"));
}

TEST_F(EmailAttachmentTest, ConfiguringWithoutAnAttachmentDoesNotLook) {
    lookUp = []() -> std::string { throw std::logic_error("looked"); };
    Configure({{"Attachment", "no"}});
    EXPECT_EQ(log.Lines().back(), "Debug halvek: \tThe value of _attach: 0");
}

TEST_F(EmailAttachmentTest, AnAttachmentWithoutTheKeyOfTheSnapshotIsAWarningAndAnError) {
    folder.Write("settings.ini", "[Video/Quickview]\nOther=1\n");
    Configure({{"Attachment", "true"}});
    const std::vector<std::string> lines = log.Lines();
    ASSERT_THAT(lines, SizeIs(7));
    EXPECT_THAT(lines[5], StartsWith("Warning halvek: \tEmailEventHandler: "));
    EXPECT_THAT(lines[5], HasSubstr("SnapshotPath"));
    EXPECT_EQ(lines[6], noneFound);
}

TEST_F(EmailAttachmentTest, AnAttachmentWithoutReadableSettingsIsAWarningAndAnError) {
    Configure({{"Attachment", "true"}});
    EXPECT_TRUE(log.Has("Warning halvek: \tEmailEventHandler: Cannot read settings " + folder.PathOf("settings.ini") +
                        ": No such file or directory"));
    EXPECT_EQ(log.Lines().back(), noneFound);
}

TEST_F(EmailAttachmentTest, AnyStandardExceptionOfTheLookUpIsAWarningWithItsText) {
    lookUp = []() -> std::string { throw std::runtime_error("100% gone"); };
    Configure({{"Attachment", "true"}});
    EXPECT_TRUE(log.Has("Warning halvek: \tEmailEventHandler: 100% gone"));
    EXPECT_EQ(log.Lines().back(), noneFound);
}

TEST_F(EmailAttachmentTest, AnyOtherExceptionOfTheLookUpIsAWarningToo) {
    lookUp = []() -> std::string { throw 42; };
    Configure({{"Attachment", "true"}});
    EXPECT_TRUE(
        log.Has("Warning halvek: \tEmailEventHandler: Error fetching value of SnapshotPath, not sending "
                "attachments"));
    EXPECT_EQ(log.Lines().back(), noneFound);
}

TEST_F(EmailAttachmentTest, AnEmptySnapshotPathIsLoggedAndAnErrorAndMailsGoWithout) {
    SetSnapshotPath("");
    Configure({{"To", "a@x"}, {"Attachment", "true"}, {"Message", Base64("text")}});
    EXPECT_TRUE(log.Has("Debug halvek: \tThe attachment we are using: "));
    EXPECT_EQ(log.Lines().back(), noneFound);
    Act();
    EXPECT_TRUE(log.Has("Debug halvek: _attach: 0 \t path: "));
    EXPECT_FALSE(log.Has("Debug halvek: Attaching the snapshot to the email"));
    EXPECT_EQ(TextOf(TakeMail()), "text");
}

TEST_F(EmailAttachmentTest, AnActionWithAnAttachmentLogsItsPath) {
    const std::string picture = folder.Write("img2.jpg", "foo");
    SetSnapshotPath(picture);
    Configure({{"To", "a@x"}, {"Attachment", "true"}});
    Act();
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("Information halvek: Sending email to a@x", "Debug halvek: _attach: 1 \t path: " + picture,
                    "Debug halvek: Attaching the snapshot to the email", StartsWith("Debug halvek: Message size: ")));
}

TEST_F(EmailAttachmentTest, TheSnapshotIsAttachedBehindTheTexts) {
    SetSnapshotPath(folder.Write("img2.jpg", "foo"));
    Configure({{"To", "a@x"}, {"Attachment", "true"}, {"RawEventData", "true"}, {"Message", Base64("text")}});
    Act({{"eventType", "alarm"}});
    const std::vector<MailText> parts = TakeMail().Parts();
    ASSERT_THAT(parts, SizeIs(3));
    EXPECT_EQ(parts[0].GetBody(), "text");
    EXPECT_EQ(parts[1].GetBody(), "\neventType = alarm\n");
    EXPECT_EQ(parts[2].Header("Content-Type"), "image/jpeg; name=img2.jpg");
    EXPECT_EQ(parts[2].GetBody(), "Zm9v\n");
}

TEST_F(EmailAttachmentTest, ASnapshotThatIsNotThereIsOneWarningAndTheMailGoesWithout) {
    SetSnapshotPath("/nowhere/img2.jpg");
    Configure({{"To", "a@x"}, {"Attachment", "true"}, {"Message", Base64("text")}});
    Act();
    EXPECT_EQ(TextOf(TakeMail()), "text");
    EXPECT_THAT(log.Lines(), IsSupersetOf({"Warning kelto.inet: The mail goes without its attachment: Cannot read "
                                           "/nowhere/img2.jpg: No such file or directory"}));
    EXPECT_THAT(log.Lines(), SizeIs(5));
}

TEST_F(EmailAttachmentTest, ConfiguredAnewWithoutAnAttachmentItSendsNoneThoughItKnowsThePath) {
    const std::string picture = folder.Write("img2.jpg", "foo");
    SetSnapshotPath(picture);
    Configure({{"To", "a@x"}, {"Message", Base64("text")}, {"Attachment", "true"}});
    Configure({{"To", "a@x"}, {"Message", Base64("text")}, {"Attachment", "false"}});
    Act();
    EXPECT_THAT(log.Lines(),
                ElementsAre("Information halvek: Sending email to a@x", "Debug halvek: _attach: 0 \t path: " + picture,
                            StartsWith("Debug halvek: Message size: ")));
    const MailText mail = TakeMail();
    EXPECT_EQ(TextOf(mail), "text");
    EXPECT_THAT(mail.Parts(), IsEmpty());
}

TEST_F(EmailAttachmentTest, WhereTheSettingsWereRefusedBeforeTheLookUpTheMailGoesWithoutAWarning) {
    SetSnapshotPath(folder.Write("img2.jpg", "foo"));
    EXPECT_THROW(Configure({{"To", "a@x"}, {"Attachment", "true"}, {"RawEventData", "perhaps"}}), osa::Exception);
    Act();
    EXPECT_THAT(log.Lines(),
                ElementsAre("Information halvek: Sending email to a@x",
                            "Debug halvek: _attach: 1 \t path: ", StartsWith("Debug halvek: Message size: ")));
    EXPECT_THAT(TakeMail().Parts(), IsEmpty());
}

}  // namespace

}  // namespace kelto::halvek::handler
