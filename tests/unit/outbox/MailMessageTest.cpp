#include "companions/outbox/MailMessage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kelto::halvek::outbox {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

TEST(MailMessageTest, AddressesOfManyForms) {
    EXPECT_THAT(MailMessage::Addresses("a@x"), ElementsAre("a@x"));
    EXPECT_THAT(MailMessage::Addresses("\"A, B\" <a@x>, b@x (the \\) other), C D <c@x>"),
                ElementsAre("a@x", "b@x", "c@x"));
    EXPECT_THAT(MailMessage::Addresses("guards: a@x, b@x;, c@x"), ElementsAre("a@x", "b@x", "c@x"));
    EXPECT_THAT(MailMessage::Addresses("\"a b\"@x, a@x, a@x"), ElementsAre("\"a b\"@x", "a@x"));
    EXPECT_THAT(MailMessage::Addresses("<>, ,; (nothing"), IsEmpty());
}

TEST(MailMessageTest, RecipientsAreThoseOfAllThreeFieldsEachOnce) {
    const MailMessage mail = MailMessage::Parse("to: a@x,\n b@x\nCC: a@x\nbcc: c@x,\n\td@x\nFrom: Me <me@x>\n\ntext\n");
    EXPECT_THAT(mail.recipients, ElementsAre("a@x", "b@x", "c@x", "d@x"));
    EXPECT_EQ(mail.sender, "me@x");
    EXPECT_THAT(mail.text, Not(HasSubstr("c@x")));
    EXPECT_THAT(mail.text, Not(HasSubstr("d@x")));
    EXPECT_THAT(mail.text, HasSubstr("to: a@x,\r\n b@x\r\n"));
}

TEST(MailMessageTest, EveryLineEndsAsTheWireHasIt) {
    const MailMessage mail = MailMessage::Parse("To: a@x\r\nDate: d\nMessage-ID: <m>\n\none\r\ntwo\n\n.\nlast");
    EXPECT_EQ(mail.text, "To: a@x\r\nDate: d\r\nMessage-ID: <m>\r\n\r\none\r\ntwo\r\n\r\n.\r\nlast\r\n");
}

TEST(MailMessageTest, DateAndMessageIdArePutInWhereTheyAreMissing) {
    const MailMessage mail = MailMessage::Parse("To: a@x\n\ntext\n");
    EXPECT_THAT(mail.text, HasSubstr("\r\nDate: "));
    EXPECT_THAT(mail.text, HasSubstr("\r\nMessage-ID: <"));
    EXPECT_THAT(mail.text, EndsWith("\r\n\r\ntext\r\n"));
}

TEST(MailMessageTest, TheTextIsNoHeader) {
    EXPECT_THAT(MailMessage::Parse("Subject: s\n\nTo: a@x\n").recipients, IsEmpty());
    EXPECT_THAT(MailMessage::Parse("").recipients, IsEmpty());
}

}  // namespace
}  // namespace kelto::halvek::outbox
