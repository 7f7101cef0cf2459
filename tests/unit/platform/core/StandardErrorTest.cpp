#include "kelto/core/StandardError.h"
#include "tests/support/Matchers.h"
#include "tests/support/Unprivileged.h"
#include "tests/support/WaitUntil.h"

#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <optional>
#include <string>
#include <thread>

namespace kelto::core {

namespace {

using namespace std::chrono_literals;

extern "C" void TakeBrokenPipe(int) {}

extern "C" void TakeBrokenPipeWithMore(int, siginfo_t*, void*) {}

/** What standard error leads to for the length of a scope, with this test as the reader. */
class Place {
public:
    enum class Kind { Pipe, Socket };

    explicit Place(Kind kind) : saved(dup(STDERR_FILENO)) {
        std::array<int, 2> ends{};
        EXPECT_EQ(kind == Kind::Pipe ? pipe(ends.data()) : socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
        dup2(ends[1], STDERR_FILENO);
        close(ends[1]);
        reader = ends[0];
        fcntl(reader, F_SETFL, O_NONBLOCK);
    }
    ~Place() {
        dup2(saved, STDERR_FILENO);
        close(saved);
        HangUp();
    }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    /** All that is there. */
    std::string Read() const {
        std::string all;
        std::array<char, 65536> buffer{};
        for (ssize_t count = 0; (count = read(reader, buffer.data(), buffer.size())) > 0;) {
            all.append(buffer.data(), static_cast<size_t>(count));
        }
        return all;
    }

    void HangUp() {
        if (reader >= 0) {
            close(reader);
            reader = -1;
        }
    }

private:
    const int saved;
    int reader = -1;
};

/** Writes until nothing has room any more. */
void Fill(StandardError& output) {
    while (output.Write("x") == 1) {
    }
}

class StandardErrorTest : public ::testing::TestWithParam<Place::Kind> {
protected:
    ~StandardErrorTest() override { std::signal(SIGPIPE, SIG_DFL); }
};

TEST_P(StandardErrorTest, WhatIsReadIsWhatWasWritten) {
    Place place(GetParam());
    StandardError output;
    EXPECT_EQ(output.Write("one\n"), 4U);
    EXPECT_EQ(output.Write(""), 0U);
    EXPECT_EQ(output.Write("two\n"), 4U);
    EXPECT_EQ(place.Read(), "one\ntwo\n");
}

TEST_P(StandardErrorTest, AReaderThatStandsStillCostsATenthOfASecondOnce) {
    Place place(GetParam());
    StandardError output;
    EXPECT_THAT(test::TimeOf([&] { Fill(output); }), AllOf(Ge(99ms), Lt(5s)));
    auto quickest = std::chrono::milliseconds::max();
    for (int attempt = 0; attempt < 20; ++attempt) {
        quickest = std::min(quickest, test::TimeOf([&] { EXPECT_EQ(output.Write("more"), 0U); }));
    }
    EXPECT_LT(quickest, 50ms);
    place.Read();
    EXPECT_EQ(output.Write("here\n"), 5U);
    EXPECT_EQ(place.Read(), "here\n");
}

TEST_P(StandardErrorTest, AReaderThatIsOnlySlowGetsEverything) {
    // More than there is room for, so that the rest has to wait.
    const std::string text(size_t{1} << 20, 'x');
    bool isWhole = false;
    // On a busy machine a reader may stand still for a tenth of a second without meaning to.
    for (int attempt = 0; attempt < 20 && !isWhole; ++attempt) {
        const Place place(GetParam());
        StandardError output;
        std::atomic<bool> done = false;
        std::string seen;
        std::thread reader([&] {
            EXPECT_TRUE(test::WaitUntil([&] {
                const bool isLast = done;
                seen += place.Read();
                return isLast;
            }));
        });
        const size_t written = output.Write(text);
        done = true;
        reader.join();
        EXPECT_EQ(seen.size(), written);
        isWhole = written == text.size();
    }
    EXPECT_TRUE(isWhole);
}

TEST_P(StandardErrorTest, AReaderThatHasGoneEndsNothingAndCostsOnlyTheText) {
    Place place(GetParam());
    StandardError output;
    place.HangUp();
    EXPECT_EQ(output.Write("nobody reads this\n"), 18U);
}

TEST_P(StandardErrorTest, TheDefaultOfABrokenPipeIsReplacedAndNothingElse) {
    struct sigaction action {};
    {
        const Place place(GetParam());
        const StandardError output;
        sigaction(SIGPIPE, nullptr, &action);
        EXPECT_NE(action.sa_handler, SIG_DFL);
        EXPECT_NE(action.sa_handler, SIG_IGN) << "commands would inherit that";
        EXPECT_EQ(action.sa_flags & SA_RESTART, SA_RESTART);
    }
    for (const sighandler_t handler : {SIG_IGN, sighandler_t{TakeBrokenPipe}}) {
        std::signal(SIGPIPE, handler);
        const Place place(GetParam());
        const StandardError output;
        sigaction(SIGPIPE, nullptr, &action);
        EXPECT_EQ(action.sa_handler, handler);
    }
    action = {};
    action.sa_sigaction = TakeBrokenPipeWithMore;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGPIPE, &action, nullptr);
    const Place place(GetParam());
    const StandardError output;
    sigaction(SIGPIPE, nullptr, &action);
    EXPECT_EQ(action.sa_sigaction, TakeBrokenPipeWithMore);
}

TEST_P(StandardErrorTest, ASignalEndsNoWait) {
    Place place(GetParam());
    StandardError output;
    std::atomic<bool> done = false;
    struct sigaction action {};
    action.sa_handler = TakeBrokenPipe;
    sigaction(SIGUSR1, &action, nullptr);
    const pthread_t writer = pthread_self();
    std::thread disturbing([&] {
        while (!done) {
            pthread_kill(writer, SIGUSR1);
            test::WaitUntil([&] { return done.load(); }, 1ms);
        }
    });
    EXPECT_GE(test::TimeOf([&] { Fill(output); }), 99ms);
    done = true;
    disturbing.join();
    std::signal(SIGUSR1, SIG_DFL);
}

INSTANTIATE_TEST_SUITE_P(OfBothKinds, StandardErrorTest, ::testing::Values(Place::Kind::Pipe, Place::Kind::Socket));

TEST(StandardErrorPipe, TheInheritedDescriptionStaysAsItIs) {
    const Place place(Place::Kind::Pipe);
    const int inherited = dup(STDERR_FILENO);
    const StandardError output;
    EXPECT_EQ(fcntl(inherited, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFD), 0) << "commands inherit it";
    close(inherited);
}

TEST(StandardErrorPipe, OneThatMayNotBeOpenedAnewIsWrittenInPiecesWhileItHasRoom) {
    const Place place(Place::Kind::Pipe);
    std::optional<StandardError> output;
    fchmod(STDERR_FILENO, 0);
    {
        const test::Unprivileged unprivileged;
        output.emplace();
    }
    EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK, 0);
    const std::string text(3 * PIPE_BUF + 1, 'x');
    EXPECT_EQ(output->Write(text), text.size());
    EXPECT_EQ(place.Read(), text);
    while (output->Write(text) == text.size()) {
    }
    EXPECT_EQ(output->Write("more"), 0U) << "and does not wait for ever";
    place.Read();
    EXPECT_EQ(output->Write("here"), 4U);
    EXPECT_EQ(place.Read(), "here");
}

TEST(StandardErrorSocket, WhatIsPutInItsPlaceIsWrittenToo) {
    const Place before(Place::Kind::Socket);
    StandardError output;
    const Place place(Place::Kind::Pipe);
    EXPECT_EQ(output.Write("here\n"), 5U);
    EXPECT_EQ(place.Read(), "here\n");
    EXPECT_EQ(before.Read(), "");
}

}  // namespace

}  // namespace kelto::core
