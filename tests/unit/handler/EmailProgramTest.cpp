#include "event/AlarmEvent.h"
#include "tests/fakes/FailingAllocation.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Fifo.h"
#include "tests/support/FreshProcess.h"
#include "tests/support/Matchers.h"
#include "tests/support/WaitUntil.h"
#include "tests/unit/handler/EmailFixture.h"

#include <pthread.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace kelto::halvek::handler {

namespace {

using test::Base64;
using test::MailText;

bool BlocksBrokenPipe() {
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    return sigismember(&blocked, SIGPIPE) == 1;
}

/** How the mail program is run. */
class EmailProgramTest : public EmailFixture {
protected:
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
};

TEST_F(EmailProgramTest, TheMailProgramIsCalledToTakeTheRecipientsFromTheMail) {
    Configure({{"To", "a@x"}});
    Act();
    EXPECT_EQ(test::ReadWholeFile(folder.PathOf("call")), folder.PathOf("bin/esmtp") + " -t\n");
}

TEST_F(EmailProgramTest, TheBrokenPipeSignalStaysBlockedOnTheActingThreadOnly) {
    Configure({{"To", "a@x"}});
    std::thread([this] {
        EXPECT_FALSE(BlocksBrokenPipe());
        PerformAction();
        EXPECT_TRUE(BlocksBrokenPipe());
    }).join();
    EXPECT_FALSE(BlocksBrokenPipe());
}

TEST_F(EmailProgramTest, AMailProgramThatDiesAtOnceDoesNoHarm) {
    SetSnapshotPath(folder.Write("img2.jpg", std::string(3000000, 'x')));
    Configure({{"To", "a@x"}, {"Attachment", "true"}});
    BeMailProgram("exit 1");
    Act();
    EXPECT_THAT(log.Lines(), SizeIs(4));
    BeMailProgram("cat >$folder/mail.$$");
    Act();
    EXPECT_THAT(TakeMail().Parts(), SizeIs(2));
}

TEST_F(EmailProgramTest, AMailProgramThatIsNotThereDoesNoHarm) {
    const test::EnvironmentVariable nowhere("PATH", "/nowhere");
    Configure({{"To", "a@x"}});
    Act();
    EXPECT_THAT(log.Text(), HasSubstr("esmtp"));
    EXPECT_THAT(log.Records(), SizeIs(3));
    EXPECT_THAT(Mails(), IsEmpty());
}

TEST_F(EmailProgramTest, WithoutADescriptorForThePipeNothingIsSentAndNothingHappens) {
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

TEST_F(EmailProgramTest, InterruptionsLoseNothingOfTheMail) {
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
        PerformAction();
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

TEST_F(EmailProgramTest, ACommandOfAnotherThreadDoesNotKeepTheMailFromEnding) {
    const test::Fifo started(folder.PathOf("started"));
    const test::Fifo go(folder.PathOf("go"));
    const test::Fifo end(folder.PathOf("end"));
    BeMailProgram("echo >$folder/started; read line <$folder/go; cat >$folder/mail.$$");
    SetSnapshotPath(folder.Write("img2.jpg", std::string(1000000, 'x')));
    Configure({{"To", "a@x"}, {"Attachment", "true"}});
    std::future<void> mailed = std::async(std::launch::async, [this] { PerformAction(); });
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

TEST_F(EmailProgramTest, AMissingMailLibraryIsOneErrorAndNothingIsSent) {
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

TEST_F(EmailProgramTest, TwoThreadsMayMailAtOnce) {
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

TEST_F(EmailProgramTest, WithoutMemoryThereIsAnErrorAndNeverHalfAMail) {
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
