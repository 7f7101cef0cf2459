#include "event/TimerEvent.h"
#include "handler/ExternEventHandler.h"
#include "tests/fakes/FakeClock.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Fifo.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"
#include "tests/support/TempDir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>

namespace kelto::halvek::handler {

namespace {

namespace fs = std::filesystem;

const std::string directory = "/var/run/halvek";
constexpr const char* noFifos = "Debug halvek: ExternEventHandler::PerformAction: No FIFO's to use for event";
constexpr const char* done = "Debug halvek: ExternEventHandler::PerformAction: Done firing to all FIFO's";
constexpr const char* timerBlock = "[Timer]\neventType=Timer\n.\n";

/** The folder is the real one, in a /run of the test's own. */
class ExternEventHandlerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(fs::is_directory(directory)) << "start this program through scripts/private-run";
        ASSERT_TRUE(fs::is_empty(directory));
    }

    void TearDown() override {
        for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
            fs::remove(entry);
        }
    }

    static std::string PathOf(const std::string& name) { return directory + "/" + name; }

    void Fire(const Event::Properties& properties) {
        event::TimerEvent event(properties);
        handler.PerformAction(event);
    }

    void FireTimer() { Fire(Event::Properties{{"eventType", "Timer"}}); }

    const test::LeftDescriptorsClosed leftDescriptorsClosed;
    test::LogCapture log;
    ExternEventHandler handler;
};

TEST_F(ExternEventHandlerTest, WritesToThePipesOfTheTypeAndToThoseForAll) {
    const test::Fifo timer(PathOf("Timer.fifo"));
    const test::Fifo all(PathOf("all.halvek.any"));
    const test::Fifo alarm(PathOf("Alarm.fifo"));
    FireTimer();
    EXPECT_EQ(timer.Read(), timerBlock);
    EXPECT_EQ(all.Read(), timerBlock);
    EXPECT_EQ(alarm.Read(), "");
}

TEST_F(ExternEventHandlerTest, AnyPartOfTheNameMayBeTheTypeButInItsOwnCase) {
    const test::Fifo inside(PathOf("MyTimerPipe"));
    const test::Fifo lower(PathOf("timer"));
    const test::Fifo upperAny(PathOf("HALVEK.ANY"));
    FireTimer();
    EXPECT_EQ(inside.Read(), timerBlock);
    EXPECT_EQ(lower.Read(), "");
    EXPECT_EQ(upperAny.Read(), "");
}

TEST_F(ExternEventHandlerTest, APipeOfBothTypeAndMarkerGetsTheEventOnce) {
    const test::Fifo both(PathOf("Timer.halvek.any"));
    FireTimer();
    EXPECT_EQ(both.Read(), timerBlock);
}

TEST_F(ExternEventHandlerTest, ATypeThatIsPartOfTheFoldersPathMatchesEveryPipe) {
    const test::Fifo one(PathOf("one"));
    const test::Fifo two(PathOf("two"));
    Fire(Event::Properties{{"eventType", "run"}});
    EXPECT_EQ(one.Read(), "[run]\neventType=run\n.\n");
    EXPECT_EQ(two.Read(), "[run]\neventType=run\n.\n");
}

TEST_F(ExternEventHandlerTest, ADescriptorThatIsLeftOpenIsInheritedByCommands) {
    const test::Fifo pipe(PathOf("Timer.fifo"));
    const std::vector<int> before = test::OpenDescriptorsOf(PathOf("Timer.fifo"));
    Fire(Event::Properties{{"eventType", "Timer"}, {"large", std::string(size_t{1} << 20, 'x')}});
    std::vector<int> left = test::OpenDescriptorsOf(PathOf("Timer.fifo"));
    std::erase_if(left, [&](int fd) { return std::find(before.begin(), before.end(), fd) != before.end(); });
    ASSERT_EQ(left.size(), 1U);
    EXPECT_EQ(fcntl(left.front(), F_GETFD), 0);
}

TEST_F(ExternEventHandlerTest, TheDescriptorZeroIsAsGoodAsAnyOther) {
    const test::Fifo pipe(PathOf("Timer.fifo"));
    const int saved = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    FireTimer();
    dup2(saved, STDIN_FILENO);
    close(saved);
    EXPECT_EQ(pipe.Read(), timerBlock);
}

TEST_F(ExternEventHandlerTest, AnEmptyTypeMatchesEveryPipe) {
    const test::Fifo one(PathOf("one"));
    Fire(Event::Properties{{"eventType", ""}});
    EXPECT_EQ(one.Read(), "[]\neventType=\n.\n");
}

TEST_F(ExternEventHandlerTest, WritesAllPropertiesInByteOrderOfTheirKeys) {
    const test::FakeClock clock("2025-03-05 07:08:09");
    const test::Fifo pipe(PathOf("Timer.fifo"));
    event::TimerEvent event(Event::Properties{{"eventType", "Timer"}, {"b", "x=y "}, {"B", ""}});
    event.StampTime();
    handler.PerformAction(event);
    EXPECT_EQ(pipe.Read(),
              "[Timer]\nB=\nFormattedTime=2025-05-03T07:08:09+00:00\nTimestamp=07:08:09\nb=x=y \neventType=Timer\n.\n");
}

TEST_F(ExternEventHandlerTest, NothingIsEscaped) {
    const test::Fifo pipe(PathOf("all.halvek.any"));
    const std::string zero(1, '\0');
    Fire(Event::Properties{{"eventType", "A\xFF"}, {"x", "one\ntwo\\ \"%s\""}, {"y", zero}});
    EXPECT_EQ(pipe.Read(), "[A\xFF]\neventType=A\xFF\nx=one\ntwo\\ \"%s\"\ny=" + zero + "\n.\n");
}

TEST_F(ExternEventHandlerTest, LogsAnEventStepByStepInTheOrderOfTheNames) {
    const test::Fifo b(PathOf("b.halvek.any"));
    const test::Fifo c(PathOf("c"));
    const test::Fifo a(PathOf("a.Timer"));
    FireTimer();
    EXPECT_THAT(log.Lines(),
                ElementsAre("Debug halvek: ExternEventHandler::PerformAction: Got event of type: Timer",
                            "Trace halvek: ExternEventHandler::PerformAction: Found FIFO name: " + a.GetPath(),
                            "Trace halvek: ExternEventHandler::PerformAction: Firing to FIFO name: " + a.GetPath(),
                            "Debug halvek: ExternEventHandler: Firing event with eventType: Timer",
                            "Debug halvek: ExternEventHandler: FIFO open() passed",
                            "Debug halvek: ExternEventHandler: External Event fired!",
                            "Trace halvek: ExternEventHandler::PerformAction: Found FIFO name: " + b.GetPath(),
                            "Trace halvek: ExternEventHandler::PerformAction: Firing to FIFO name: " + b.GetPath(),
                            "Debug halvek: ExternEventHandler: Firing event with eventType: Timer",
                            "Debug halvek: ExternEventHandler: FIFO open() passed",
                            "Debug halvek: ExternEventHandler: External Event fired!",
                            "Trace halvek: ExternEventHandler::PerformAction: Found FIFO name: " + c.GetPath(), done));
}

TEST_F(ExternEventHandlerTest, AnEmptyFolderIsNotedAndNoFailure) {
    FireTimer();
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: ExternEventHandler::PerformAction: Got event of type: Timer",
                                         noFifos, done));
}

TEST_F(ExternEventHandlerTest, ASingleEntryIsServedAlthoughItIsNotedAsNone) {
    const test::Fifo pipe(PathOf("Timer.fifo"));
    FireTimer();
    EXPECT_TRUE(log.Has(noFifos));
    EXPECT_EQ(pipe.Read(), timerBlock);
}

TEST_F(ExternEventHandlerTest, TwoEntriesAreEnoughWhateverTheirNames) {
    const test::Fifo one(PathOf("one"));
    const test::Fifo two(PathOf("two"));
    FireTimer();
    EXPECT_FALSE(log.Has(noFifos));
    EXPECT_TRUE(log.Has(done));
}

TEST_F(ExternEventHandlerTest, WithoutTheFolderThereIsNoOutputAndNoFailure) {
    fs::remove(directory);
    FireTimer();
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: ExternEventHandler::PerformAction: Got event of type: Timer",
                                         noFifos, done));
    fs::create_directory(directory);
}

TEST_F(ExternEventHandlerTest, AFolderThatCannotBeListedIsAnError) {
    fs::remove(directory);
    std::ofstream(directory).close();
    FireTimer();
    EXPECT_THAT(log.Lines(), ElementsAre("Debug halvek: ExternEventHandler::PerformAction: Got event of type: Timer",
                                         "Error halvek: Cannot list /var/run/halvek: Not a directory"));
    fs::remove(directory);
    fs::create_directory(directory);
}

TEST_F(ExternEventHandlerTest, AnEventWithoutPropertiesIsAnErrorAndNothingIsWritten) {
    const test::Fifo pipe(PathOf("all.halvek.any"));
    Fire(Event::Properties{});
    EXPECT_THAT(log.Lines(), ElementsAre("Error halvek: ExternEventHandler: handler improperly used"));
    EXPECT_EQ(pipe.Read(), "");
}

TEST_F(ExternEventHandlerTest, AnEventWithoutATypeIsAnErrorAndNothingIsWritten) {
    const test::Fifo pipe(PathOf("all.halvek.any"));
    Fire(Event::Properties{{"x", "1"}});
    EXPECT_THAT(log.Lines(), ElementsAre("Error halvek: Missing eventType"));
    EXPECT_EQ(pipe.Read(), "");
}

TEST_F(ExternEventHandlerTest, IsConfiguredWithoutSettings) {
    EXPECT_TRUE(handler.IsConfigured());
}

TEST_F(ExternEventHandlerTest, TheFilterOfAConfiguredOneAppliesAndItsGroupIsLogged) {
    const test::FakeClock clock("2025-03-05 12:00:00");
    const test::Fifo pipe(PathOf("all.halvek.any"));
    handler.Configure({{"EnabledTimes", "1300-1400"}});
    EXPECT_TRUE(log.Has("Debug halvek: \t** EnabledTimes\t\t1300-1400"));
    event::TimerEvent event(Event::Properties{{"eventType", "Timer"}});
    handler.HandleEvent(event);
    EXPECT_EQ(pipe.Read(), "");
}

TEST_F(ExternEventHandlerTest, DataWaitsInAPipeWhoseReaderIsSlow) {
    const test::Fifo pipe(PathOf("all.halvek.any"));
    for (int i = 0; i < 3; ++i) {
        FireTimer();
    }
    EXPECT_EQ(pipe.CountWaiting(), 3 * std::string(timerBlock).size());
    EXPECT_EQ(test::OpenDescriptorsOf(pipe.GetPath()).size(), 1U);
}

TEST_F(ExternEventHandlerTest, APipeThatNobodyHasOpenIsWrittenWithoutAnError) {
    ASSERT_EQ(mkfifo(PathOf("all.halvek.any").c_str(), 0600), 0);
    FireTimer();
    EXPECT_THAT(log.Lines(), IsSupersetOf({"Debug halvek: ExternEventHandler: External Event fired!", done}));
}

TEST_F(ExternEventHandlerTest, AFullPipeIsAnErrorAndThePipesBehindItAreSkipped) {
    const test::Fifo before(PathOf("1.halvek.any"));
    const test::Fifo full(PathOf("2.halvek.any"));
    const test::Fifo behind(PathOf("3.halvek.any"));
    full.Fill();
    FireTimer();
    EXPECT_EQ(before.Read(), timerBlock);
    EXPECT_EQ(behind.Read(), "");
    EXPECT_EQ(log.Lines().back(), "Error halvek: FIFO Write failed");
    full.Read();
    FireTimer();
    EXPECT_EQ(full.Read(), timerBlock);
    EXPECT_EQ(behind.Read(), timerBlock);
}

TEST_F(ExternEventHandlerTest, AFailedWriteLeavesTheDescriptorOpen) {
    const test::Fifo full(PathOf("1.halvek.any"));
    full.Fill();
    FireTimer();
    FireTimer();
    const std::vector<int> open = test::OpenDescriptorsOf(full.GetPath());
    ASSERT_EQ(open.size(), 3U);
    EXPECT_EQ(fcntl(open[2], F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR | O_NONBLOCK);
}

TEST_F(ExternEventHandlerTest, AShortWriteIsAnErrorWithBothLengthsAndLeavesTheDescriptorOpen) {
    const test::Fifo small(PathOf("1.halvek.any"));
    const test::Fifo behind(PathOf("2.halvek.any"));
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    small.SetCapacity(page);
    const Event::Properties properties{{"eventType", "Timer"}, {"x", std::string(2 * page, 'x')}};
    const size_t length = std::string("[Timer]\neventType=Timer\nx=\n.\n").size() + 2 * page;
    Fire(properties);
    EXPECT_EQ(log.Lines().back(), "Error halvek: FIFO write failed to write all data, wrote: " + std::to_string(page) +
                                      " of " + std::to_string(length));
    EXPECT_EQ(small.CountWaiting(), page);
    EXPECT_EQ(behind.Read(), "");
    EXPECT_EQ(test::OpenDescriptorsOf(small.GetPath()).size(), 2U);
}

TEST_F(ExternEventHandlerTest, AnEntryThatCannotBeOpenedIsAnErrorAndThePipesBehindItAreSkipped) {
    const test::Fifo behind(PathOf("b.halvek.any"));
    fs::create_directory(PathOf("a.halvek.any"));
    FireTimer();
    EXPECT_EQ(log.Lines().back(), "Error halvek: FIFO open() failed");
    EXPECT_EQ(behind.Read(), "");
    fs::remove(PathOf("a.halvek.any"));
    fs::create_symlink("nowhere", PathOf("a.halvek.any"));
    log.Clear();
    FireTimer();
    EXPECT_EQ(log.Lines().back(), "Error halvek: FIFO open() failed");
}

TEST_F(ExternEventHandlerTest, ALinkOfRootsIsFollowedWhereverItsPathBegins) {
    const test::TempDir folder;
    const test::Fifo outside(folder.PathOf("outside"));
    const test::Fifo inside(PathOf("inside"));
    fs::create_symlink(outside.GetPath(), PathOf("a.halvek.any"));
    fs::create_symlink("inside", PathOf("b.halvek.any"));
    fs::create_symlink("b.halvek.any", PathOf("c.halvek.any"));
    FireTimer();
    EXPECT_EQ(outside.Read(), timerBlock);
    EXPECT_EQ(inside.Read(), std::string(timerBlock) + timerBlock);
    EXPECT_EQ(log.Lines().back(), done);
}

TEST_F(ExternEventHandlerTest, FollowingALinkLeavesNoDescriptor) {
    const test::Fifo pipe(PathOf("pipe"));
    fs::create_symlink("pipe", PathOf("a.Timer"));
    FireTimer();
    const std::vector<int> before = test::OpenDescriptors();
    FireTimer();
    EXPECT_EQ(test::OpenDescriptors(), before);
    EXPECT_EQ(pipe.Read(), std::string(timerBlock) + timerBlock);
}

TEST_F(ExternEventHandlerTest, ALinkToItselfIsAFailedOpen) {
    fs::create_symlink("a.halvek.any", PathOf("a.halvek.any"));
    FireTimer();
    EXPECT_EQ(log.Lines().back(), "Error halvek: FIFO open() failed");
}

TEST_F(ExternEventHandlerTest, CommandsInheritADescriptorThatIsLeftOpen) {
    const test::Fifo full(PathOf("full"));
    full.Fill();
    fs::create_symlink("full", PathOf("a.Timer"));
    FireTimer();
    Fire(Event::Properties{{"eventType", "full"}});
    const std::vector<int> open = test::OpenDescriptorsOf(full.GetPath());
    ASSERT_EQ(open.size(), 3U);
    EXPECT_EQ(fcntl(open[1], F_GETFD), 0);
    EXPECT_EQ(fcntl(open[2], F_GETFD), 0);
}

TEST_F(ExternEventHandlerTest, WithoutADescriptorItIsAnError) {
    const test::Fifo pipe(PathOf("all.halvek.any"));
    // Once with descriptors: a sanitizer opens some when it meets a class for the first time.
    FireTimer();
    Fire(Event::Properties{});
    EXPECT_EQ(pipe.Read(), timerBlock);
    {
        const test::FewDescriptorsLeft none(0);
        FireTimer();
    }
    EXPECT_EQ(log.Lines().back(), "Error halvek: Cannot list /var/run/halvek: Too many open files");
    {
        // Listing the folder takes one and gives it back.
        const test::FewDescriptorsLeft one(1);
        FireTimer();
    }
    EXPECT_EQ(pipe.Read(), timerBlock);
}

TEST_F(ExternEventHandlerTest, AnOrdinaryFileIsWrittenLikeAPipe) {
    std::ofstream(PathOf("Timer.txt")) << std::string(40, 'x');
    FireTimer();
    EXPECT_EQ(test::ReadWholeFile(PathOf("Timer.txt")), timerBlock + std::string(40 - 26, 'x'));
}

TEST_F(ExternEventHandlerTest, BlocksOfTwoThreadsDoNotMix) {
    constexpr size_t rounds = 200;
    const test::Fifo pipe(PathOf("all.halvek.any"));
    const auto fireOften = [this](const std::string& type) {
        for (size_t i = 0; i < rounds; ++i) {
            Fire(Event::Properties{{"eventType", type}, {"x", std::string(100, type.front())}});
        }
    };
    std::string text;
    std::thread one(fireOften, "One");
    std::thread two(fireOften, "Two");
    one.join();
    two.join();
    text = pipe.Read();
    const std::string blockOne = "[One]\neventType=One\nx=" + std::string(100, 'O') + "\n.\n";
    const std::string blockTwo = "[Two]\neventType=Two\nx=" + std::string(100, 'T') + "\n.\n";
    size_t blocks = 0;
    for (size_t at = 0; at < text.size(); at += blockOne.size(), ++blocks) {
        const std::string block = text.substr(at, blockOne.size());
        ASSERT_TRUE(block == blockOne || block == blockTwo) << block;
    }
    EXPECT_EQ(blocks, 2 * rounds);
}

}  // namespace

}  // namespace kelto::halvek::handler
