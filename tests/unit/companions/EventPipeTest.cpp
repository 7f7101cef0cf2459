#include "companions/common/EventPipe.h"
#include "companions/common/PostRefusal.h"
#include "companions/common/PostedEvent.h"
#include "tests/support/TempDir.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <string>

namespace kelto::companion {

namespace {

using ::testing::HasSubstr;
using Outcome = EventPipe::Outcome;

class AnEventPipe : public ::testing::Test {
protected:
    ~AnEventPipe() override { Close(); }

    int Open(int flags = O_RDWR) {
        mkfifo(path.c_str(), 0600);
        reader = open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC);
        return reader;
    }

    void Close() {
        if (reader >= 0) {
            close(reader);
        }
        reader = -1;
    }

    std::string Read() const {
        std::array<char, 65536> buffer{};
        const ssize_t count = read(reader, buffer.data(), buffer.size());
        return {buffer.data(), static_cast<size_t>(count < 0 ? 0 : count)};
    }

    const test::TempDir folder;
    const std::string path = folder.PathOf("events.pipe");
    EventPipe pipe{path};

private:
    int reader = -1;
};

TEST_F(AnEventPipe, TakesAnEventWhole) {
    Open();
    PostedEvent event("Door");
    event.Set("a", "1");
    EXPECT_EQ(pipe.Post(event), Outcome::Posted);
    EXPECT_EQ(Read(), "[Door]\na=1\n.\n");
    EXPECT_EQ(pipe.Text(), "posted to " + path);
}

TEST_F(AnEventPipe, ThatIsNotThereIsTold) {
    EXPECT_EQ(pipe.Post(PostedEvent("Door")), Outcome::NoFifo);
    EXPECT_THAT(pipe.Text(), HasSubstr(path));
    EXPECT_NE(access(path.c_str(), F_OK), 0) << "it was made";
}

TEST_F(AnEventPipe, ThatIsAFileIsLeftAlone) {
    close(open(path.c_str(), O_CREAT | O_WRONLY, 0600));
    EXPECT_EQ(pipe.Post(PostedEvent("Door")), Outcome::NoFifo);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 0);
    EXPECT_EQ(EventPipe("/dev/null").Post(PostedEvent("Door")), Outcome::NoFifo);
}

TEST_F(AnEventPipe, ThatNobodyReadsIsTold) {
    mkfifo(path.c_str(), 0600);
    EXPECT_EQ(pipe.Post(PostedEvent("Door")), Outcome::NobodyReads);
    EXPECT_THAT(pipe.Text(), HasSubstr("nobody reads " + path));
}

TEST_F(AnEventPipe, ThatIsFullTakesNoPartOfAnEvent) {
    Open();
    PostedEvent large("Large");
    large.Set("a", std::string(4000, 'x'));
    while (pipe.Post(large) == Outcome::Posted) {
    }
    PostedEvent event("Door");
    event.Set("a", std::string(4000, 'y'));
    EXPECT_EQ(pipe.Post(event), Outcome::Full);
    EXPECT_EQ(Read().find('y'), std::string::npos);
    EXPECT_EQ(pipe.Post(event), Outcome::Posted);
}

TEST_F(AnEventPipe, IsFollowedWhenAnotherTakesItsPlace) {
    Open();
    EXPECT_EQ(pipe.Post(PostedEvent("Door")), Outcome::Posted);
    Close();
    unlink(path.c_str());
    Open();
    EXPECT_EQ(pipe.Post(PostedEvent("Bell")), Outcome::Posted);
    EXPECT_EQ(Read(), "[Bell]\n.\n");
}

TEST_F(AnEventPipe, IsNotTouchedForABlockThatIsTooLong) {
    Open();
    PostedEvent event("Door");
    event.Set("a", std::string(5000, 'x'));
    EXPECT_THROW(pipe.Post(event), PostRefusal);
    EXPECT_EQ(Read(), "");
}

/** The only reader goes between open and write: seen with a reader that comes and goes all the time. */
TEST_F(AnEventPipe, WhoseReaderGoesCausesNoSignal) {
    mkfifo(path.c_str(), 0600);
    const pid_t flapping = fork();
    if (flapping == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        while (true) {
            close(open(path.c_str(), O_RDONLY | O_NONBLOCK));
        }
    }
    std::signal(SIGPIPE, SIG_DFL);
    unsigned posted = 0;
    unsigned unread = 0;
    while ((posted < 100 || unread < 100) && posted + unread < 1'000'000) {
        const Outcome outcome = pipe.Post(PostedEvent("Door"));
        posted += outcome == Outcome::Posted ? 1 : 0;
        unread += outcome == Outcome::NobodyReads ? 1 : 0;
    }
    kill(flapping, SIGKILL);
    waitpid(flapping, nullptr, 0);
    EXPECT_GE(posted, 100U);
    EXPECT_GE(unread, 100U);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

TEST_F(AnEventPipe, LeavesASignalThatWasPendingBefore) {
    sigset_t pipeSignal;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);
    raise(SIGPIPE);
    Open();
    EXPECT_EQ(pipe.Post(PostedEvent("Door")), Outcome::Posted);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 1);
}

}  // namespace

}  // namespace kelto::companion
