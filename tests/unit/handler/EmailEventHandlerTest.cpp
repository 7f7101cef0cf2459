#include "env/HalvekEnv.h"
#include "env/HandlerRegistry.h"
#include "kelto/osa/Exception.h"
#include "tests/fakes/FakeClock.h"
#include "tests/support/Matchers.h"
#include "tests/unit/handler/EmailFixture.h"

#include <pthread.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kelto::halvek::handler {

namespace {

using test::Base64;
using test::MailText;

constexpr const char* tooLong = "The configured email message was too long, please use less than 5000 characters";

std::string Unbroken(std::string text) {
    for (size_t at = text.find("=\n"); at != std::string::npos; at = text.find("=\n", at)) {
        text.erase(at, 2);
    }
    return text;
}

class EmailEventHandlerTest : public EmailFixture {
protected:
    /** What is mailed for a template. */
    std::string BodyFor(const std::string& messageTemplate) {
        Configure({{"To", "a@x"}, {"Message", Base64(messageTemplate)}});
        Act();
        return TextOf(TakeMail());
    }
};

TEST_F(EmailEventHandlerTest, IsMadeByTheRegistryUnderEmail) {
    HalvekEnv env;
    const std::unique_ptr<EventHandler> made = HandlerRegistry::Instance().CreateHandlerByName("Email", &env);
    EXPECT_NE(dynamic_cast<EmailEventHandler*>(made.get()), nullptr);
    EXPECT_EQ(HandlerRegistry::Instance().CreateHandlerByName("email", &env), nullptr);
}

TEST_F(EmailEventHandlerTest, IsConfiguredFromTheBeginning) {
    EXPECT_TRUE(handler.IsConfigured());
}

TEST_F(EmailEventHandlerTest, ConfiguringRunsTheBaseFirstAndTellsWhetherItAttaches) {
    Configure({{"To", "a@x"}, {"EnabledDays", "MTWRFSU"}});
    EXPECT_THAT(log.Lines(),
                ElementsAre("Debug halvek: \t** Contents of Ini group we're configuring",
                            "Debug halvek: \t** Key\t\tValue", "Debug halvek: \t** EnabledDays\t\tMTWRFSU",
                            "Debug halvek: \t** To\t\ta@x", "Information halvek: \tFilterChain: Configured day filter",
                            "Debug halvek: \tThe value of _attach: 0"));
}

TEST_F(EmailEventHandlerTest, AValueThatIsNoBoolLeavesConfigure) {
    for (const char* const key : {"Attachment", "RawEventData"}) {
        EXPECT_THAT(
            [&] {
                handler.Configure({{key, "perhaps"}});
            },
            FailsWith(AllOf(HasSubstr(key), HasSubstr("perhaps"))));
    }
}

TEST_F(EmailEventHandlerTest, AbsentKeysLeaveAddressesAndSubjectAsTheyWere) {
    Configure({{"To", "a@x"}, {"From", "cam@x"}, {"Subject", "s"}, {"Message", Base64("old")}, {"RawEventData", "1"}});
    Configure({});
    Act();
    const MailText mail = TakeMail();
    EXPECT_EQ(mail.Header("To"), "a@x");
    EXPECT_EQ(mail.Header("From"), "cam@x");
    EXPECT_EQ(mail.Header("Subject"), "s");
    EXPECT_EQ(mail.GetBody(), "");
    EXPECT_THAT(mail.Parts(), IsEmpty());
}

TEST_F(EmailEventHandlerTest, AnActionLogsItsStepsAndTheSizeOfTheMail) {
    Configure({{"To", "a@x, b@y"}});
    Act();
    const std::vector<std::string> mails = Mails();
    ASSERT_THAT(mails, SizeIs(1));
    EXPECT_THAT(log.Lines(),
                ElementsAre("Information halvek: Sending email to a@x, b@y", "Debug halvek: _attach: 0 \t path: ",
                            "Debug halvek: Message size: " + std::to_string(mails[0].size())));
}

TEST_F(EmailEventHandlerTest, TheMailHasTheConfiguredAddressesAndSubject) {
    Configure({{"To", "a@x; \"Last, First\" <c@z>"}, {"From", "Camera <cam@x>"}, {"Subject", "Alarm"}});
    Act();
    const MailText mail = TakeMail();
    EXPECT_EQ(mail.Header("To"), "a@x, \"Last, First\" <c@z>");
    EXPECT_EQ(mail.Header("From"), "Camera <cam@x>");
    EXPECT_EQ(mail.Header("Subject"), "Alarm");
}

TEST_F(EmailEventHandlerTest, TheTemplateIsFilledInWithTheLocalTimeOfTheAction) {
    test::FakeClock clock("2025-03-05 14:05:09", "CET-1CEST");
    Configure({{"To", "a@x"}, {"Message", "QWxhcm0gYXQgJUg6JU0="}});
    Act();
    EXPECT_EQ(TextOf(TakeMail()), "Alarm at 14:05");
    clock.Set("2025-03-05 23:59:00");
    Act();
    EXPECT_EQ(TextOf(TakeMail()), "Alarm at 23:59");
}

TEST_F(EmailEventHandlerTest, WithoutAMessageTheBodyIsEmpty) {
    Configure({{"To", "a@x"}});
    Act();
    EXPECT_EQ(TakeMail().GetBody(), "");
    EXPECT_EQ(BodyFor(""), "");
}

TEST_F(EmailEventHandlerTest, NothingBehindAZeroInTheTemplateIsSent) {
    EXPECT_EQ(BodyFor(std::string("one\0two", 7)), "one");
}

TEST_F(EmailEventHandlerTest, ATemplateThatIsNoBase64YieldsAGarbledBodyAndNoFailure) {
    Configure({{"To", "a@x"}, {"Message", "Alarm at %H:%M"}});
    Act();
    EXPECT_THAT(log.Lines(), SizeIs(3));
    EXPECT_THAT(TextOf(TakeMail()), Not(HasSubstr("Alarm")));
}

TEST_F(EmailEventHandlerTest, ABodyOf5000BytesIsSent) {
    const std::string body(5000, 'x');
    EXPECT_EQ(Unbroken(BodyFor(body)), body);
}

TEST_F(EmailEventHandlerTest, ABodyOf5001BytesIsReplacedByTheTextThatItIsTooLong) {
    EXPECT_EQ(BodyFor(std::string(5001, 'x')), tooLong);
}

TEST_F(EmailEventHandlerTest, TheLimitIsOnTheExpandedTextAndNotOnTheTemplate) {
    const test::FakeClock clock("2025-03-05 14:05:09");
    EXPECT_EQ(Unbroken(BodyFor(std::string(4996, 'x') + "%Y")), std::string(4996, 'x') + "2025");
    EXPECT_EQ(BodyFor(std::string(4997, 'x') + "%Y"), tooLong);
    std::string percents;
    for (int i = 0; i < 3000; ++i) {
        percents += "%%";
    }
    EXPECT_EQ(Unbroken(BodyFor(percents)), std::string(3000, '%'));
}

TEST_F(EmailEventHandlerTest, AnExpansionMayFillTenTimesTheTemplateWithBothTerminatingZeros) {
    const test::FakeClock clock("2025-03-05 14:05:09");
    // Five bytes and a zero: a buffer of 60 bytes, of which the last is a zero too.
    EXPECT_EQ(BodyFor("%059d"), std::string(58, '0') + "5");
    EXPECT_EQ(BodyFor("%060d"), "");
    EXPECT_THAT(log.Lines(), SizeIs(3));
}

TEST_F(EmailEventHandlerTest, AnOverlongTemplateFitsOnASmallStack) {
    Configure({{"To", "a@x"}, {"Message", Base64(std::string(1000000, 'x'))}});
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 1 << 20);
    pthread_t thread{};
    const auto act = [](void* self) -> void* {
        event::TimerEvent event(Event::Properties{});
        static_cast<EmailEventHandler*>(self)->PerformAction(event);
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, act, &handler), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(TextOf(TakeMail()), tooLong);
}

TEST_F(EmailEventHandlerTest, RawEventDataIsASecondTextInTheOrderOfTheKeys) {
    Configure({{"To", "a@x"}, {"Message", Base64("text")}, {"RawEventData", "true"}});
    Act({{"source", "1"}, {"eventType", "alarm"}});
    const std::vector<MailText> parts = TakeMail().Parts();
    ASSERT_THAT(parts, SizeIs(2));
    EXPECT_EQ(parts[0].GetBody(), "text");
    EXPECT_EQ(parts[1].GetBody(), "\neventType = alarm\nsource = 1\n");
}

TEST_F(EmailEventHandlerTest, RawEventDataOfAnEventWithoutPropertiesIsNoText) {
    Configure({{"To", "a@x"}, {"Message", Base64("text")}, {"RawEventData", "true"}});
    Act(Event::Properties{});
    EXPECT_EQ(TextOf(TakeMail()), "text");
}

TEST_F(EmailEventHandlerTest, WithoutRawEventDataThePropertiesAreNotSent) {
    Configure({{"To", "a@x"}, {"Message", Base64("text")}, {"RawEventData", "false"}});
    Act({{"eventType", "alarm"}});
    EXPECT_EQ(TextOf(TakeMail()), "text");
}

TEST_F(EmailEventHandlerTest, RawEventDataFollowsATooLongAndAnEmptyTextToo) {
    for (const auto& [messageTemplate, text] :
         {std::pair(std::string(5001, 'x'), tooLong), std::pair(std::string(), "")}) {
        Configure({{"To", "a@x"}, {"Message", Base64(messageTemplate)}, {"RawEventData", "1"}});
        Act({{"eventType", "alarm"}});
        const std::vector<MailText> parts = TakeMail().Parts();
        ASSERT_THAT(parts, SizeIs(2));
        EXPECT_EQ(TextOf(parts[0]), text);
        EXPECT_EQ(parts[1].GetBody(), "\neventType = alarm\n");
    }
}

TEST_F(EmailEventHandlerTest, AnUnconfiguredTemplateYieldsNoTextAtAll) {
    Act({{"eventType", "alarm"}});
    EXPECT_EQ(TakeMail().GetBody(), "");
}

TEST_F(EmailEventHandlerTest, LineBreaksInSubjectAndEventAddNeitherHeadersNorRecipients) {
    Configure({{"To", "a@x"}, {"Subject", "s\nBcc: evil@y\r\n\r\n.\r\n"}, {"RawEventData", "1"}, {"Message", "eA=="}});
    Act({{"eventType", "alarm\n.\nBcc: evil@y\n\nX: y"}, {"k\nBcc: evil@y", "v\r\n.\r\nQUIT\r\n"}});
    const MailText mail = TakeMail();
    EXPECT_THAT(mail.HeaderNames(), ElementsAre("To", "Subject", "Date", "Message-Id", "MIME-Version", "Content-Type"));
    EXPECT_EQ(mail.Header("Subject"), "sBcc: evil@y.");
    EXPECT_THAT("\n" + mail.GetBody(), Not(HasSubstr("\n.")));
    const std::vector<MailText> parts = mail.Parts();
    ASSERT_THAT(parts, SizeIs(2));
    EXPECT_EQ(Unbroken(parts[1].GetBody()),
              "\neventType =3D alarm\n=2E\nBcc: evil@y\n\nX: y\nk\nBcc: evil@y =3D v\n=2E\nQUIT\n\n");
}

TEST_F(EmailEventHandlerTest, TheFilterDropsEventsBeforeTheyAreMailed) {
    const test::FakeClock clock("2025-03-05 12:00:00");
    Configure({{"To", "a@x"}, {"EnabledTimes", "1300-1400"}});
    event::TimerEvent event(Event::Properties{{"eventType", "Timer"}});
    handler.HandleEvent(event);
    EXPECT_THAT(Mails(), IsEmpty());
}

}  // namespace

}  // namespace kelto::halvek::handler
