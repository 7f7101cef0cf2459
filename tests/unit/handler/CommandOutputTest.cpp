#include "handler/CommandOutput.h"
#include "kelto/osa/Exception.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Fifo.h"
#include "tests/support/Matchers.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitUntil.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <future>
#include <thread>

namespace kelto::halvek::handler {

namespace {

std::atomic<int> caught = 0;

extern "C" void CountSignal(int) {
    ++caught;
}

/** SIGALRM interrupts system calls for the length of a scope: its handler does not have them go on. */
class InterruptingAlarm {
public:
    InterruptingAlarm() {
        caught = 0;
        struct sigaction action {};
        action.sa_handler = CountSignal;
        sigaction(SIGALRM, &action, &before);
    }
    ~InterruptingAlarm() { sigaction(SIGALRM, &before, nullptr); }
    InterruptingAlarm(const InterruptingAlarm&) = delete;
    InterruptingAlarm& operator=(const InterruptingAlarm&) = delete;

private:
    struct sigaction before {};
};

/** Whether this process has no child left, ended or not. */
bool HasNoChildren() {
    return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

TEST(CommandOutput, IsWhatTheShellPrintsForTheCommand) {
    EXPECT_EQ(ReadCommandOutput("printf '%s\\n' a 'b c' | head -1; echo $((1 + 1))", 100), "a\n2\n");
    EXPECT_EQ(ReadCommandOutput("true", 100), "");
    EXPECT_EQ(ReadCommandOutput("echo out; exit 1", 100), "out\n");
    EXPECT_EQ(ReadCommandOutput("printf 'a\\0b'", 100), std::string("a\0b", 3));
}

TEST(CommandOutput, IsCutAtTheLimit) {
    EXPECT_EQ(ReadCommandOutput("printf 12345", 5), "12345");
    EXPECT_EQ(ReadCommandOutput("printf 123456", 5), "12345");
    EXPECT_EQ(ReadCommandOutput("printf 12345", 0), "");
}

TEST(CommandOutput, EndsACommandThatWouldPrintForEver) {
    EXPECT_EQ(ReadCommandOutput("yes", 6), "y\ny\ny\n");
    EXPECT_TRUE(HasNoChildren());
}

TEST(CommandOutput, IsPutTogetherFromThePiecesThatComeAtATime) {
    const test::TempDir folder;
    const test::Fifo goOn(folder.PathOf("goOn"));
    const test::Fifo begun(folder.PathOf("begun"));
    auto output = std::async(std::launch::async, [&] {
        return ReadCommandOutput(
            "printf 12; echo > " + begun.GetPath() + "; read line < " + goOn.GetPath() + "; printf 345", 4);
    });
    ASSERT_TRUE(test::WaitUntil([&] { return begun.CountWaiting() > 0; }));
    goOn.Write("\n");
    EXPECT_EQ(output.get(), "1234");
}

TEST(CommandOutput, IsWholeHoweverOftenASignalInterruptsTheReadingThread) {
    const InterruptingAlarm alarm;
    const test::TempDir folder;
    const test::Fifo goOn(folder.PathOf("goOn"));
    const test::Fifo begun(folder.PathOf("begun"));
    std::string output;
    std::thread reader([&] {
        output = ReadCommandOutput(
            "printf 12; echo > " + begun.GetPath() + "; read line < " + goOn.GetPath() + "; printf 34", 100);
    });
    EXPECT_TRUE(test::WaitUntil([&] { return begun.CountWaiting() > 0; }));
    for (int count = 1; count <= 200; ++count) {
        pthread_kill(reader.native_handle(), SIGALRM);
        EXPECT_TRUE(test::WaitUntil([&] { return caught >= count; }));
    }
    goOn.Write("\n");
    reader.join();
    EXPECT_EQ(output, "1234");
    EXPECT_TRUE(HasNoChildren());
}

TEST(CommandOutput, ThrowsWhenTheCommandCannotBeStarted) {
    std::string text;
    {
        // No expectation in here: the sanitizer's own checks want a descriptor.
        const test::FewDescriptorsLeft none(0);
        try {
            ReadCommandOutput("echo 1", 100);
        } catch (const osa::Exception& exception) {
            text = exception.what();
        }
    }
    EXPECT_THAT(text, AllOf(HasSubstr("echo 1"), HasSubstr("Too many open files")));
}

TEST(CommandOutput, LeavesNeitherDescriptorsNorProcessesBehind) {
    const std::vector<int> before = test::OpenDescriptors();
    for (const char* command : {"echo 1", "false", "yes", "no-such-program 2> /dev/null", "kill -9 $$"}) {
        ReadCommandOutput(command, 10);
    }
    EXPECT_EQ(test::OpenDescriptors(), before);
    EXPECT_TRUE(HasNoChildren());
}

TEST(CommandOutput, IsNotHeldOpenByCommandsThatOtherThreadsStart) {
    const test::TempDir folder;
    const test::Fifo goOn(folder.PathOf("goOn"));
    const test::Fifo begun(folder.PathOf("begun"));
    const std::vector<int> before = test::OpenDescriptors();
    auto slow = std::async(std::launch::async, [&] {
        return ReadCommandOutput("echo > " + begun.GetPath() + "; read line < " + goOn.GetPath(), 100);
    });
    EXPECT_TRUE(test::WaitUntil([&] { return begun.CountWaiting() > 0; }));
    std::vector<int> descriptors;
    // The command may have begun before the end of the pipe that is its own is closed here.
    EXPECT_TRUE(test::WaitUntil([&] {
        descriptors = test::OpenDescriptors();
        std::erase_if(descriptors, [&](int fd) { return std::binary_search(before.begin(), before.end(), fd); });
        return descriptors.size() == 1;
    }));
    EXPECT_EQ(fcntl(descriptors.at(0), F_GETFD), FD_CLOEXEC);
    goOn.Write("\n");
    slow.get();
}

}  // namespace

}  // namespace kelto::halvek::handler
