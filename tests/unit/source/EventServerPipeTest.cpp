#include "kelto/core/Logger.h"
#include "tests/support/Matchers.h"
#include "tests/support/ProcessState.h"
#include "tests/support/WaitUntil.h"
#include "tests/unit/source/EventServerSourceFixture.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kelto::halvek::source {

namespace {

using namespace std::chrono_literals;

constexpr const char* defaultPath = "/var/run/halvek.pipe";
constexpr const char* openFailure =
    "Error kelto.osa: Thread EventServerSource ended by an exception: Unable to open FIFO for reading";
constexpr const char* droppedAtAStop = "Warning halvek: EventServerSource: event dropped, its writer goes on at a stop";

mode_t ModeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode;
}

class Umask {
public:
    explicit Umask(mode_t mask) : saved(umask(mask)) {}
    ~Umask() { umask(saved); }
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;

private:
    const mode_t saved;
};

/** Waits until the listening thread sleeps, which it does for want of input alone; its id. */
pid_t WaitForQuiet() {
    std::vector<pid_t> threads;
    const bool quiet = test::WaitUntil([&] {
        threads = test::ThreadsNamed("EventServerSour");
        // One that has been joined is listed for a moment longer.
        return threads.size() == 1 && test::IsAsleep(threads.front());
    });
    return quiet ? threads.front() : throw std::runtime_error("the server does not come to rest");
}

/** How the server waits at its pipe, and how it is stopped. */
class EventServerPipeTest : public EventServerSourceTest {};

TEST_F(EventServerPipeTest, ConfiguringTellsWhatItDoesStepByStep) {
    const std::string other = folder.PathOf("other");
    source.Configure({{"Path", other}});
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("Debug halvek: \t** Contents of Ini group we're configuring", "Debug halvek: \t** Key\t\tValue",
                    "Debug halvek: \t** Path\t\t" + other, "Information halvek: Configuring EventServer",
                    "Information halvek: Creating FIFO: " + other, "Information halvek: Configured EventServer"));
    EXPECT_TRUE(S_ISFIFO(ModeOf(other)));
}

TEST_F(EventServerPipeTest, WithoutAPathTheDefaultCounts) {
    source.Configure({});
    EXPECT_THAT(log.Lines(), IsSupersetOf({"Debug halvek: Could not find fifo Path, using default",
                                           "Information halvek: Creating FIFO: /var/run/halvek.pipe"}));
    EXPECT_TRUE(S_ISFIFO(ModeOf(defaultPath)));
    unlink(defaultPath);
}

TEST_F(EventServerPipeTest, TheModeOfThePipeIsTheDecimal666LessTheUmask) {
    for (const mode_t mask : {0000U, 0022U, 0077U}) {
        const Umask changed(mask);
        const std::string other = folder.PathOf("other");
        source.Configure({{"Path", other}});
        EXPECT_EQ(ModeOf(other) & 07777, 01232 & ~mask);
        unlink(other.c_str());
    }
}

TEST_F(EventServerPipeTest, APipeThatIsThereAlreadyIsUsedAsItIs) {
    const std::string other = folder.PathOf("other");
    ASSERT_EQ(mkfifo(other.c_str(), 0620), 0);
    ASSERT_EQ(chmod(other.c_str(), 0620), 0);
    source.Configure({{"Path", other}});
    EXPECT_EQ(ModeOf(other) & 07777, 0620U);
    const test::Fifo otherEnd(other);
    otherEnd.Write("[A]\n.\n");
    source.StartListening();
    EXPECT_EQ(Received(1), Events({Made("A")}));
}

TEST_F(EventServerPipeTest, AnOrdinaryFileAtThePathIsReadAsItStands) {
    const std::string file = folder.Write("file", "[A]\nx=1\n.\n");
    source.Configure({{"Path", file}});
    EXPECT_TRUE(log.Has("Information halvek: Configured EventServer"));
    test::RecordingHandler stopping([this](Event&) { source.Stop(); });
    source.AddHandler(&stopping);
    source.Run();
    EXPECT_EQ(Received(1), Events({Made("A", {{"x", "1"}})}));
    EXPECT_EQ(test::ReadWholeFile(file), "[A]\nx=1\n.\n");
}

TEST_F(EventServerPipeTest, APipeThatCannotBeOpenedEndsTheThreadAndStartingReturns) {
    for (const std::string& bad : {folder.PathOf("missing/pipe"), folder.GetPath(), std::string()}) {
        log.Clear();
        source.Configure({{"Path", bad}});
        EXPECT_TRUE(log.Has("Information halvek: Creating FIFO: " + bad));
        EXPECT_TRUE(log.Has("Information halvek: Configured EventServer"));
        source.StartListening();
        EXPECT_TRUE(log.WaitFor(openFailure));
        source.StopListening();
        EXPECT_TRUE(log.Has("Information halvek: EventServerSource stopped"));
    }
}

TEST_F(EventServerPipeTest, RunningWithoutAPipeThrows) {
    source.Configure({{"Path", folder.PathOf("missing/pipe")}});
    EXPECT_THAT([this] { source.Run(); }, FailsWith("Unable to open FIFO for reading"));
}

TEST_F(EventServerPipeTest, AfterFiveQuietSecondsItWaitsAnewWithoutAWord) {
    EventsOf("");
    const pid_t thread = WaitForQuiet();
    log.Clear();
    const auto sleepsAgain = [thread](uint64_t times, std::chrono::seconds within) {
        const uint64_t sleeps = test::CountSleeps(thread);
        return test::WaitUntil([&] { return test::CountSleeps(thread) >= sleeps + times; }, within);
    };
    // A sleep that the machine itself interrupts, as one that stands still for a moment does, counts as two.
    EXPECT_FALSE(sleepsAgain(3, 4s));
    EXPECT_TRUE(sleepsAgain(1, 20s));
    EXPECT_EQ(log.Text(), "");
    EXPECT_EQ(EventsOf("[A]\n.\n").back(), Made("A"));
}

TEST_F(EventServerPipeTest, ADescriptorThatFitsNoSetIsAFailedOpenAndIsClosed) {
    const test::LowDescriptorsTaken taken(FD_SETSIZE);
    const std::vector<int> before = test::OpenDescriptors();
    EXPECT_THAT([this] { source.Run(); }, FailsWith("Unable to open FIFO for reading"));
    EXPECT_EQ(test::OpenDescriptors(), before);
}

TEST_F(EventServerPipeTest, TheLastDescriptorThatFitsASetIsUsed) {
    const test::LowDescriptorsTaken taken(FD_SETSIZE - 1);
    test::RecordingHandler stopping([this](Event&) { source.Stop(); });
    source.AddHandler(&stopping);
    fifo.Write("[A]\n.\n");
    source.Run();
    EXPECT_EQ(handler.Count(), 1U);
    EXPECT_EQ(test::OpenDescriptorsOf(path).back(), FD_SETSIZE - 1);
}

TEST_F(EventServerPipeTest, ThePipeIsOpenForReadingAndWritingWithoutBlocking) {
    source.StartListening();
    const int fd = test::OpenDescriptorsOf(path).back();
    EXPECT_EQ(fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR | O_NONBLOCK);
}

TEST_F(EventServerPipeTest, WritersMayComeAndGo) {
    source.StartListening();
    for (size_t round = 1; round <= 3; ++round) {
        const int writer = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_EQ(write(writer, "[A]\n.\n", 6), 6);
        close(writer);
        EXPECT_TRUE(handler.WaitForCount(round));
    }
    EXPECT_EQ(handler.Count(), 3U);
}

TEST_F(EventServerPipeTest, PipeAndDescriptorSurviveAStopAndWhatWasPostedMeanwhileIsRead) {
    source.StartListening();
    const size_t open = test::OpenDescriptorsOf(path).size();
    source.StopListening();
    EXPECT_EQ(test::OpenDescriptorsOf(path).size(), open);
    EXPECT_TRUE(S_ISFIFO(ModeOf(path)));
    fifo.Write("[A]\nx=1\n.\n");
    source.StartListening();
    EXPECT_EQ(Received(1), Events({Made("A", {{"x", "1"}})}));
    EXPECT_EQ(test::OpenDescriptorsOf(path).size(), open + 1);
}

TEST_F(EventServerPipeTest, ARestartForgetsTheLastType) {
    EventsOf("[A]\n.\n");
    source.StopListening();
    log.Clear();
    fifo.Write("x=1\n.\n");
    EXPECT_EQ(EventsOf(""), Events({Made("A"), Made("Last1")}));
}

TEST_F(EventServerPipeTest, StartingAndStoppingAreLogged) {
    source.StartListening();
    EXPECT_THAT(log.Lines(), ElementsAre("Information halvek: Opening FIFO: " + path,
                                         "Information halvek: EventServerSource started"));
    log.Clear();
    source.StopListening();
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: EventServerSource::Stop()", "Debug halvek: DONE",
                                         "Information halvek: Exiting eventserversource run loop.",
                                         "Information halvek: EventServerSource stopped"));
}

TEST_F(EventServerPipeTest, StoppingInterruptsTheWaitAtOnce) {
    for (int round = 0; round < 20; ++round) {
        source.StartListening();
        WaitForQuiet();
        EXPECT_LT(test::TimeOf([&] { source.StopListening(); }), 3s);
    }
    EXPECT_EQ(log.Count("Debug halvek: DONE"), 20U);
}

TEST_F(EventServerPipeTest, AnEventThatIsTooLargeIsSkippedToTheEndOfWhatThePipeHolds) {
    fifo.SetCapacity(size_t{1} << 20);
    source.StartListening();
    fifo.Write("[A]\nx=" + std::string(70000, 'v') + "\ny=1\n");
    EXPECT_TRUE(log.WaitFor("Trace halvek: Got line: y=1"));
    WaitForQuiet();
    EXPECT_EQ(EventsOf("z=1\n.\n"), Events({Made("A", {{"z", "1"}})}));
    EXPECT_EQ(log.Count("Error halvek: EventServerSource: event of more than 60000 bytes skipped"), 1U);
}

/** Posts the same text without an end until it goes, and is far ahead of every reader from the beginning. */
class EndlessWriter {
public:
    EndlessWriter(const test::Fifo& fifo, const std::string& text)
        : fd(open(fifo.GetPath().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) {
        fifo.SetCapacity(size_t{1} << 20);
        while (piece.size() < 4096) {
            piece += text;
        }
        while (write(fd, piece.data(), piece.size()) > 0) {
        }
        thread = std::thread([this] { Go(); });
    }
    ~EndlessWriter() {
        done = true;
        thread.join();
        close(fd);
    }
    EndlessWriter(const EndlessWriter&) = delete;
    EndlessWriter& operator=(const EndlessWriter&) = delete;

    /** Waits until the reader has taken a few thousand bytes. */
    bool WaitUntilRead() const {
        return test::WaitUntil([this] { return refills >= 2; });
    }

private:
    void Go() {
        while (!done) {
            pollfd pipe{fd, POLLOUT, 0};
            if (poll(&pipe, 1, 10) > 0 && write(fd, piece.data(), piece.size()) > 0) {
                ++refills;
            }
        }
    }

    const int fd;
    std::string piece;
    std::atomic<bool> done = false;
    std::atomic<int> refills = 0;
    std::thread thread;
};

TEST_F(EventServerPipeTest, AStopGetsThroughWhileAWriterNeverEndsItsEvent) {
    // A record for each line would be most of the work.
    kelto::core::Logger::SetLevels({.general = kelto::core::LogLevel::Debug, .byLogger = {}});
    for (const std::string line : {"x=1", "#", "[", "[A]"}) {
        log.Clear();
        {
            const EndlessWriter writer(fifo, line + "\n");
            source.StartListening();
            EXPECT_TRUE(writer.WaitUntilRead());
            EXPECT_LT(test::TimeOf([&] { source.StopListening(); }), 3s);
        }
        EXPECT_EQ(log.Count(droppedAtAStop), 1U);
        EXPECT_TRUE(log.Has("Debug halvek: DONE"));
        // Only now: a pipe that is still written to may never be found empty.
        fifo.Read();
    }
    EXPECT_EQ(handler.Count(), 0U);
}

TEST_F(EventServerPipeTest, AStopGetsThroughWhileALineNeverEnds) {
    log.Clear();
    const EndlessWriter writer(fifo, "x");
    source.StartListening();
    EXPECT_TRUE(log.WaitFor("Error halvek: EventServerSource: event of more than 60000 bytes skipped"));
    source.StopListening();
    EXPECT_EQ(log.Count(droppedAtAStop), 1U);
}

TEST_F(EventServerPipeTest, AStopInTheMiddleOfAnEventLetsItBeReadToItsEnd) {
    kelto::core::Logger::SetLevels({.general = kelto::core::LogLevel::Debug, .byLogger = {}});
    std::string block = "[A]\n";
    for (int i = 0; i < 500; ++i) {
        block += "k" + std::to_string(i) + "=" + std::string(90, 'v') + "\n";
    }
    block += "last=1\n.\n";
    for (bool isInTheMiddle = false; !isInTheMiddle;) {
        fifo.Write(block);
        source.StartListening();
        ASSERT_TRUE(test::WaitUntil([&] { return fifo.CountWaiting() < block.size(); }));
        source.Stop();
        isInTheMiddle = fifo.CountWaiting() > 0;
        source.StopListening();
    }
    EXPECT_FALSE(log.Has(droppedAtAStop));
    EXPECT_EQ(handler.Events().back().properties.count("last"), 1U);
}

TEST_F(EventServerPipeTest, AnEventThatHasBegunBeforeAStopIsReadToItsEnd) {
    test::RecordingHandler stopping([this](Event&) { source.Stop(); });
    source.AddHandler(&stopping);
    fifo.Write("[A]\n.\n[B]\n.\n");
    source.Run();
    EXPECT_EQ(fifo.Read(), "[B]\n.\n");
    EXPECT_FALSE(log.Has(droppedAtAStop));
}

TEST_F(EventServerPipeTest, AnInterruptedWaitGoesOn) {
    std::atomic<pthread_t> thread = 0;
    test::RecordingHandler noting([&](Event&) { thread = pthread_self(); });
    source.AddHandler(&noting);
    EventsOf("");
    ASSERT_TRUE(test::WaitUntil([&thread] { return thread != 0; }));
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(pthread_kill(thread, SIGUSR1), 0);
    }
    EXPECT_EQ(EventsOf("[A]\n.\n"), Events({Made("Last1"), Made("A")}));
    source.StopListening();
    signal(SIGUSR1, SIG_DFL);
}

TEST_F(EventServerPipeTest, ASecondStartIsRefused) {
    source.StartListening();
    EXPECT_THAT([this] { source.StartListening(); }, FailsWith("EventServerSource::StartListening already running"));
}

}  // namespace

}  // namespace kelto::halvek::source
