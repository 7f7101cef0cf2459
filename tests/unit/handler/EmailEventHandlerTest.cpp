#include "env/HalvekEnv.h"
#include "env/HandlerRegistry.h"
#include "event/AlarmEvent.h"
#include "event/TimerEvent.h"
#include "handler/EmailEventHandler.h"
#include "kelto/osa/Exception.h"
#include "tests/fakes/FailingAllocation.h"
#include "tests/fakes/FakeClock.h"
#include "tests/support/Base64.h"
#include "tests/support/Descriptors.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/Fifo.h"
#include "tests/support/FreshProcess.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MailText.h"
#include "tests/support/Matchers.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitUntil.h"

#include <pthread.h>
#include <sys/stat.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

namespace kelto::halvek::handler {

namespace {

namespace fs = std::filesystem;
using Group = core::IniFile::Group;
using test::Base64;
using test::MailText;

constexpr const char* tooLong = "The configured email message was too long, please use less than 5000 characters";
constexpr const char* noneFound = "Error halvek: \tEmailEventHandler: the user wanted an attachment, but none is found";

/** A body without the line end that every mail gets. */
std::string TextOf(const MailText& part) {
    const std::string& body = part.GetBody();
    return body.ends_with('\n') ? body.substr(0, body.size() - 1) : body;
}

std::string Unbroken(std::string text) {
    for (size_t at = text.find("=\n"); at != std::string::npos; at = text.find("=\n", at)) {
        text.erase(at, 2);
    }
    return text;
}

bool BlocksBrokenPipe() {
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    return sigismember(&blocked, SIGPIPE) == 1;
}

/** The mail program is a script that keeps what it gets; settings, snapshot and shell are real. */
class EmailEventHandlerTest : public ::testing::Test {
protected:
    EmailEventHandlerTest() { BeMailProgram("echo \"$0 $*\" >$folder/call; cat >$folder/mail.$$"); }

    /** What the mail program does; $folder stands for the test's folder. */
    void BeMailProgram(const std::string& script) const {
        fs::create_directory(folder.PathOf("bin"));
        folder.Write("bin/esmtp", "#!/bin/sh\nfolder=" + folder.GetPath() + "\n" + script + "\n");
        chmod(folder.PathOf("bin/esmtp").c_str(), 0755);
    }

    void SetSnapshotPath(const std::string& path) const {
        folder.Write("settings.ini", "[Video/Quickview]\nSnapshotPath=" + path + "\n");
    }

    /** Configures with the log cleared before. */
    void Configure(const Group& group) {
        log.Clear();
        handler.Configure(group);
    }

    /** One action with the log cleared before; in a thread of its own, for what it leaves on its thread. */
    void Act(const Event::Properties& properties = {{"eventType", "Test"}}) {
        log.Clear();
        std::thread([&] {
            event::TimerEvent event(properties);
            handler.PerformAction(event);
        }).join();
    }

    std::vector<std::string> Mails() const {
        std::vector<std::string> mails;
        for (const fs::directory_entry& entry : fs::directory_iterator(folder.GetPath())) {
            if (entry.path().filename().string().starts_with("mail.")) {
                mails.push_back(test::ReadWholeFile(entry.path()));
            }
        }
        return mails;
    }

    /** The one mail that was given to the program; it is forgotten. */
    MailText TakeMail() {
        const std::vector<std::string> mails = Mails();
        EXPECT_THAT(mails, SizeIs(1));
        ForgetMails();
        return MailText(mails.empty() ? "" : mails.front());
    }

    void ForgetMails() const {
        for (const fs::directory_entry& entry : fs::directory_iterator(folder.GetPath())) {
            if (entry.path().filename().string().starts_with("mail.")) {
                fs::remove(entry.path());
            }
        }
    }

    /** One action with the log cleared before, in which the allocation after so many good ones fails; false if none
     * has. */
    bool ActWithoutMemory(size_t goodOnes) {
        log.Clear();
        bool hasFailed = false;
        std::thread([&] {
            event::TimerEvent event(Event::Properties{{"eventType", "Test"}});
            const test::FailingAllocation failing(goodOnes);
            handler.PerformAction(event);
            hasFailed = test::FailingAllocation::HasFailed();
        }).join();
        return hasFailed;
    }

    /** What is mailed for a template. */
    std::string BodyFor(const std::string& messageTemplate) {
        Configure({{"To", "a@x"}, {"Message", Base64(messageTemplate)}});
        Act();
        return TextOf(TakeMail());
    }

    const test::TempDir folder;
    const test::EnvironmentVariable programs{"PATH", folder.PathOf("bin") + ":" + std::getenv("PATH")};
    const test::EnvironmentVariable settings{"KELTO_SETTINGS", folder.PathOf("settings.ini")};
    test::LogCapture log;
    SnapshotLookUp lookUp = LookUpSnapshotPath;
    EmailEventHandler handler{[this] { return lookUp(); }};
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

TEST_F(EmailEventHandlerTest, ConfiguringWithAnAttachmentLooksUpTheSnapshot) {
    SetSnapshotPath("/tmp/snapshot/img2.jpg");
    Configure({{"Attachment", "true"}});
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: \t** Contents of Ini group we're configuring",
                                         "Debug halvek: \t** Key\t\tValue", "Debug halvek: \t** Attachment\t\ttrue",
                                         "Debug halvek: \tThe value of _attach: 1",
                                         "Debug halvek: \tThe user wants an email attachment",
                                         "Debug halvek: \tThe attachment we are using: /tmp/snapshot/img2.jpg"));
}

TEST_F(EmailEventHandlerTest, ConfiguringWithoutAnAttachmentDoesNotLook) {
    lookUp = []() -> std::string { throw std::logic_error("looked"); };
    Configure({{"Attachment", "no"}});
    EXPECT_EQ(log.Lines().back(), "Debug halvek: \tThe value of _attach: 0");
}

TEST_F(EmailEventHandlerTest, AnAttachmentWithoutTheKeyOfTheSnapshotIsAWarningAndAnError) {
    folder.Write("settings.ini", "[Video/Quickview]\nOther=1\n");
    Configure({{"Attachment", "true"}});
    const std::vector<std::string> lines = log.Lines();
    ASSERT_THAT(lines, SizeIs(7));
    EXPECT_THAT(lines[5], StartsWith("Warning halvek: \tEmailEventHandler: "));
    EXPECT_THAT(lines[5], HasSubstr("SnapshotPath"));
    EXPECT_EQ(lines[6], noneFound);
}

TEST_F(EmailEventHandlerTest, AnAttachmentWithoutReadableSettingsIsAWarningAndAnError) {
    Configure({{"Attachment", "true"}});
    EXPECT_TRUE(log.Has("Warning halvek: \tEmailEventHandler: Cannot read settings " + folder.PathOf("settings.ini") +
                        ": No such file or directory"));
    EXPECT_EQ(log.Lines().back(), noneFound);
}

TEST_F(EmailEventHandlerTest, AnyStandardExceptionOfTheLookUpIsAWarningWithItsText) {
    lookUp = []() -> std::string { throw std::runtime_error("100% gone"); };
    Configure({{"Attachment", "true"}});
    EXPECT_TRUE(log.Has("Warning halvek: \tEmailEventHandler: 100% gone"));
    EXPECT_EQ(log.Lines().back(), noneFound);
}

TEST_F(EmailEventHandlerTest, AnyOtherExceptionOfTheLookUpIsAWarningToo) {
    lookUp = []() -> std::string { throw 42; };
    Configure({{"Attachment", "true"}});
    EXPECT_TRUE(
        log.Has("Warning halvek: \tEmailEventHandler: Error fetching value of SnapshotPath, not sending "
                "attachments"));
    EXPECT_EQ(log.Lines().back(), noneFound);
}

TEST_F(EmailEventHandlerTest, AnEmptySnapshotPathIsLoggedAndAnErrorAndMailsGoWithout) {
    SetSnapshotPath("");
    Configure({{"To", "a@x"}, {"Attachment", "true"}, {"Message", Base64("text")}});
    EXPECT_TRUE(log.Has("Debug halvek: \tThe attachment we are using: "));
    EXPECT_EQ(log.Lines().back(), noneFound);
    Act();
    EXPECT_TRUE(log.Has("Debug halvek: _attach: 0 \t path: "));
    EXPECT_FALSE(log.Has("Debug halvek: Attaching the snapshot to the email"));
    EXPECT_EQ(TextOf(TakeMail()), "text");
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

TEST_F(EmailEventHandlerTest, AnActionWithAnAttachmentLogsItsPath) {
    const std::string picture = folder.Write("img2.jpg", "foo");
    SetSnapshotPath(picture);
    Configure({{"To", "a@x"}, {"Attachment", "true"}});
    Act();
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("Information halvek: Sending email to a@x", "Debug halvek: _attach: 1 \t path: " + picture,
                    "Debug halvek: Attaching the snapshot to the email", StartsWith("Debug halvek: Message size: ")));
}

TEST_F(EmailEventHandlerTest, TheMailProgramIsCalledToTakeTheRecipientsFromTheMail) {
    Configure({{"To", "a@x"}});
    Act();
    EXPECT_EQ(test::ReadWholeFile(folder.PathOf("call")), folder.PathOf("bin/esmtp") + " -t\n");
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

TEST_F(EmailEventHandlerTest, TheSnapshotIsAttachedBehindTheTexts) {
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

TEST_F(EmailEventHandlerTest, ASnapshotThatIsNotThereIsOneWarningAndTheMailGoesWithout) {
    SetSnapshotPath("/nowhere/img2.jpg");
    Configure({{"To", "a@x"}, {"Attachment", "true"}, {"Message", Base64("text")}});
    Act();
    EXPECT_EQ(TextOf(TakeMail()), "text");
    EXPECT_THAT(log.Lines(), IsSupersetOf({"Warning kelto.inet: The mail goes without its attachment: Cannot read "
                                           "/nowhere/img2.jpg: No such file or directory"}));
    EXPECT_THAT(log.Lines(), SizeIs(5));
}

TEST_F(EmailEventHandlerTest, ConfiguredAnewWithoutAnAttachmentItSendsNoneThoughItKnowsThePath) {
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

TEST_F(EmailEventHandlerTest, WhereTheSettingsWereRefusedBeforeTheLookUpTheMailGoesWithoutAWarning) {
    SetSnapshotPath(folder.Write("img2.jpg", "foo"));
    EXPECT_THROW(Configure({{"To", "a@x"}, {"Attachment", "true"}, {"RawEventData", "perhaps"}}), osa::Exception);
    Act();
    EXPECT_THAT(log.Lines(),
                ElementsAre("Information halvek: Sending email to a@x",
                            "Debug halvek: _attach: 1 \t path: ", StartsWith("Debug halvek: Message size: ")));
    EXPECT_THAT(TakeMail().Parts(), IsEmpty());
}

TEST_F(EmailEventHandlerTest, TheBrokenPipeSignalStaysBlockedOnTheActingThreadOnly) {
    Configure({{"To", "a@x"}});
    std::thread([this] {
        EXPECT_FALSE(BlocksBrokenPipe());
        event::TimerEvent event(Event::Properties{});
        handler.PerformAction(event);
        EXPECT_TRUE(BlocksBrokenPipe());
    }).join();
    EXPECT_FALSE(BlocksBrokenPipe());
}

TEST_F(EmailEventHandlerTest, AMailProgramThatDiesAtOnceDoesNoHarm) {
    SetSnapshotPath(folder.Write("img2.jpg", std::string(3000000, 'x')));
    Configure({{"To", "a@x"}, {"Attachment", "true"}});
    BeMailProgram("exit 1");
    Act();
    EXPECT_THAT(log.Lines(), SizeIs(4));
    BeMailProgram("cat >$folder/mail.$$");
    Act();
    EXPECT_THAT(TakeMail().Parts(), SizeIs(2));
}

TEST_F(EmailEventHandlerTest, AMailProgramThatIsNotThereDoesNoHarm) {
    const test::EnvironmentVariable nowhere("PATH", "/nowhere");
    Configure({{"To", "a@x"}});
    Act();
    EXPECT_THAT(log.Text(), HasSubstr("esmtp"));
    EXPECT_THAT(log.Records(), SizeIs(3));
    EXPECT_THAT(Mails(), IsEmpty());
}

TEST_F(EmailEventHandlerTest, WithoutADescriptorForThePipeNothingIsSentAndNothingHappens) {
    Configure({{"To", "a@x"}});
    Act();
    TakeMail();
    {
        const test::FewDescriptorsLeft few(1);
        Act();
    }
    EXPECT_THAT(log.Lines(), SizeIs(3));
    EXPECT_THAT(Mails(), IsEmpty());
    Act();
    EXPECT_THAT(Mails(), SizeIs(1));
}

TEST_F(EmailEventHandlerTest, InterruptionsLoseNothingOfTheMail) {
    SetSnapshotPath(folder.Write("img2.jpg", std::string(5000000, 'x')));
    Configure({{"To", "a@x"}, {"Attachment", "true"}});
    // As the daemon's own handlers are: the system goes on with what was interrupted. Without that flag a mail is cut.
    struct sigaction before {};
    struct sigaction restarting {};
    restarting.sa_handler = [](int) {};
    restarting.sa_flags = SA_RESTART;
    sigaction(SIGALRM, &restarting, &before);
    std::atomic<bool> done = false;
    log.Clear();
    std::thread acting([&] {
        event::TimerEvent event(Event::Properties{});
        handler.PerformAction(event);
        done = true;
        while (done) {
            std::this_thread::yield();
        }
    });
    unsigned long sent = 0;
    while (!done) {
        pthread_kill(acting.native_handle(), SIGALRM);
        ++sent;
        std::this_thread::yield();
    }
    done = false;
    acting.join();
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_GT(sent, 10U);
    const std::vector<std::string> mails = Mails();
    ASSERT_THAT(mails, SizeIs(1));
    EXPECT_EQ(log.Lines().back(), "Debug halvek: Message size: " + std::to_string(mails[0].size()));
    EXPECT_GT(mails[0].size(), 6500000U);
}

TEST_F(EmailEventHandlerTest, ACommandOfAnotherThreadDoesNotKeepTheMailFromEnding) {
    const test::Fifo started(folder.PathOf("started"));
    const test::Fifo go(folder.PathOf("go"));
    const test::Fifo end(folder.PathOf("end"));
    BeMailProgram("echo >$folder/started; read line <$folder/go; cat >$folder/mail.$$");
    SetSnapshotPath(folder.Write("img2.jpg", std::string(1000000, 'x')));
    Configure({{"To", "a@x"}, {"Attachment", "true"}});
    std::future<void> mailed = std::async(std::launch::async, [this] {
        event::TimerEvent event(Event::Properties{});
        handler.PerformAction(event);
    });
    ASSERT_TRUE(test::WaitUntil([&] { return started.CountWaiting() > 0; }));
    started.Read();
    // The program has begun and the pipe to it is open, and full before long.
    const std::string command = "echo >" + started.GetPath() + "; read line <" + end.GetPath();
    std::thread other([&] { EXPECT_EQ(std::system(command.c_str()), 0); });
    EXPECT_TRUE(test::WaitUntil([&] { return started.CountWaiting() > 0; }));
    go.Write("\n");
    EXPECT_EQ(mailed.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    end.Write("\n");
    other.join();
    mailed.wait();
    EXPECT_THAT(Mails(), SizeIs(1));
}

TEST_F(EmailEventHandlerTest, AMissingMailLibraryIsOneErrorAndNothingIsSent) {
    test::ExpectInFreshProcess([this] {
        const test::EnvironmentVariable missing("KELTO_MAIL_MODULE", "/nowhere/mail.so");
        Configure({{"To", "a@x"}});
        Act();
        EXPECT_THAT(log.Lines(),
                    ElementsAre("Information halvek: Sending email to a@x", "Debug halvek: _attach: 0 \t path: ",
                                "Error halvek: Cannot load the mail library: /nowhere/mail.so: cannot open shared "
                                "object file: No such file or directory"));
        EXPECT_THAT(Mails(), IsEmpty());
    });
}

TEST_F(EmailEventHandlerTest, TheFilterDropsEventsBeforeTheyAreMailed) {
    const test::FakeClock clock("2025-03-05 12:00:00");
    Configure({{"To", "a@x"}, {"EnabledTimes", "1300-1400"}});
    event::TimerEvent event(Event::Properties{{"eventType", "Timer"}});
    handler.HandleEvent(event);
    EXPECT_THAT(Mails(), IsEmpty());
}

TEST_F(EmailEventHandlerTest, TwoThreadsMayMailAtOnce) {
    constexpr size_t rounds = 10;
    SetSnapshotPath(folder.Write("img2.jpg", std::string(200000, 'x')));
    Configure({{"To", "a@x"}, {"Attachment", "true"}, {"RawEventData", "1"}, {"Message", Base64("%H:%M")}});
    const auto act = [this](const std::string& type) {
        for (size_t i = 0; i < rounds; ++i) {
            event::AlarmEvent event(Event::Properties{{"eventType", type}});
            handler.PerformAction(event);
        }
    };
    std::thread one(act, "one");
    std::thread two(act, "two");
    one.join();
    two.join();
    size_t ofOne = 0;
    for (const std::string& mail : Mails()) {
        const std::vector<MailText> parts = MailText(mail).Parts();
        ASSERT_THAT(parts, SizeIs(3));
        ofOne += parts[1].GetBody() == "\neventType = one\n" ? 1 : 0;
        EXPECT_GT(parts[2].GetBody().size(), 200000U);
    }
    EXPECT_THAT(Mails(), SizeIs(2 * rounds));
    EXPECT_EQ(ofOne, rounds);
}

TEST_F(EmailEventHandlerTest, WithoutMemoryThereIsAnErrorAndNeverHalfAMail) {
    Configure({{"To", "a@x"}, {"From", "b@x"}, {"Message", Base64(std::string(1000, 'x') + " end")}});
    Act();
    const std::string whole = TextOf(TakeMail());
    bool hasFailed = true;
    for (size_t goodOnes = 0; hasFailed; ++goodOnes) {
        hasFailed = ActWithoutMemory(goodOnes);
        const std::vector<std::string> mails = Mails();
        ForgetMails();
        const bool isToldOf = log.Has("Error halvek: EmailEventHandler: Error, unknown exception caught");
        EXPECT_NE(mails.empty(), !isToldOf) << "with " << goodOnes << " allocations";
        EXPECT_TRUE(mails.empty() || TextOf(MailText(mails.front())) == whole) << "with " << goodOnes << " allocations";
    }
}

}  // namespace

}  // namespace kelto::halvek::handler
