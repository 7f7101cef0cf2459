#include "event/Event.h"
#include "kelto/core/Logger.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitUntil.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <sstream>
#include <thread>

namespace kelto::core {

namespace {

constexpr int interruptions = 10000;

std::atomic<int> handled = 0;
std::atomic<int> spoiledErrno = 0;
const Logger* handlersLogger = nullptr;
timer_t timer{};

/** The next signal comes 20 us later: counted from the end of a handler, so that the work goes on however slow that is.
 */
void ArmTimer() {
    constexpr itimerspec once{{0, 0}, {0, 20000}};
    timer_settime(timer, 0, &once, nullptr);
}

extern "C" void LogFromHandler(int signal) {
    const int savedErrno = errno;
    errno = EXDEV;
    handlersLogger->Debug("signal caught: %d %s", signal, "in the middle of something");
    if (errno != EXDEV) {
        ++spoiledErrno;
    }
    ++handled;
    ArmTimer();
    errno = savedErrno;
}

/** Sends a signal to the calling thread over and over for the length of a scope, wherever the thread is just then. */
class SignalTimer {
public:
    explicit SignalTimer(int signal) {
        sigevent event{};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = signal;
        event._sigev_un._tid = gettid();
        timer_create(CLOCK_MONOTONIC, &event, &timer);
        ArmTimer();
    }
    ~SignalTimer() { timer_delete(timer); }
    SignalTimer(const SignalTimer&) = delete;
    SignalTimer& operator=(const SignalTimer&) = delete;
};

/** Has a thread do the work over and over, and interrupts it ten thousand times by a signal whose handler logs. */
class LoggerSignalTest : public testing::Test {
protected:
    LoggerSignalTest() {
        handled = 0;
        spoiledErrno = 0;
        handlersLogger = &Logger::GetLogger("halvek");
        struct sigaction action {};
        action.sa_handler = LogFromHandler;
        action.sa_flags = SA_RESTART;
        sigaction(SIGUSR1, &action, &before);
    }
    ~LoggerSignalTest() override { sigaction(SIGUSR1, &before, nullptr); }

    void InterruptWhile(const std::function<void()>& work) {
        std::atomic<bool> done = false;
        std::thread worker([&] {
            const SignalTimer interrupting(SIGUSR1);
            for (; handled < interruptions; ++rounds) {
                work();
            }
            done = true;
        });
        if (!test::WaitUntil([&done] { return done.load(); }, std::chrono::seconds(90))) {
            ADD_FAILURE() << "deadlock after " << handled << " interruptions";
            std::abort();
        }
        worker.join();
        EXPECT_EQ(spoiledErrno, 0);
        EXPECT_GT(rounds, 0U);
    }

    /** How many lines of the capture are not one of these texts as a whole record. */
    static size_t CountBrokenLines(const test::LogCapture& log, const std::vector<std::string>& texts) {
        constexpr size_t timeLength = 24;
        size_t broken = 0;
        std::istringstream lines(log.Text());
        for (std::string line; std::getline(lines, line);) {
            const bool known = line.size() > timeLength && line[10] == 'T' && line[timeLength - 1] == ' ' &&
                               std::find(texts.begin(), texts.end(), line.substr(timeLength)) != texts.end();
            broken += known ? 0 : 1;
        }
        return broken;
    }

    static size_t CountLines(const test::LogCapture& log) {
        const std::string text = log.Text();
        return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    }

    const std::string handlersText = "Debug halvek: signal caught: 10 in the middle of something";
    size_t rounds = 0;

private:
    struct sigaction before {};
};

TEST_F(LoggerSignalTest, AHandlerThatInterruptsTimeStampingLogs) {
    const test::LogCapture log;
    halvek::Event event(halvek::Event::Properties{});
    InterruptWhile([&event] { event.StampTime(); });
    EXPECT_EQ(CountBrokenLines(log, {handlersText}), 0U);
    EXPECT_EQ(CountLines(log), static_cast<size_t>(handled));
}

TEST_F(LoggerSignalTest, AHandlerThatInterruptsTimeConversionsLogs) {
    const test::LogCapture log;
    InterruptWhile([] {
        const time_t now = time(nullptr);
        tm broken{};
        for (int turn = 0; turn < 20; ++turn) {
            tzset();
            localtime_r(&now, &broken);
            gmtime_r(&now, &broken);
        }
    });
    EXPECT_EQ(CountBrokenLines(log, {handlersText}), 0U);
    EXPECT_EQ(CountLines(log), static_cast<size_t>(handled));
}

TEST_F(LoggerSignalTest, AHandlerThatInterruptsLoggingLogs) {
    const test::LogCapture log;
    const std::string longText(2000, 'x');
    InterruptWhile([&longText] {
        Logger::GetLogger("halvek").Information("%s", "short");
        Logger::GetLogger("kelto.osa").Warning("%s", longText.c_str());
    });
    EXPECT_EQ(CountBrokenLines(log, {handlersText, "Information halvek: short", "Warning kelto.osa: " + longText}), 0U);
    EXPECT_EQ(CountLines(log), static_cast<size_t>(handled) + 2 * rounds);
}

TEST_F(LoggerSignalTest, AHandlerThatInterruptsLookingUpLoggersAndSettingLevelsLogs) {
    const test::LogCapture log;
    int number = 0;
    InterruptWhile([&number] {
        Logger::GetLogger(("LoggerSignalTest." + std::to_string(++number % 200)).c_str());
        Logger::SetLevels({.general = LogLevel::Trace, .byLogger = {{"kelto.osa", LogLevel::Debug}}});
    });
    EXPECT_EQ(CountBrokenLines(log, {handlersText}), 0U);
    EXPECT_EQ(CountLines(log), static_cast<size_t>(handled));
}

}  // namespace

}  // namespace kelto::core
