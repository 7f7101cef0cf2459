#include "kelto/osa/Exception.h"
#include "kelto/osa/Runnable.h"
#include "kelto/osa/Thread.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitUntil.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kelto::osa {

namespace {

constexpr int defaultPriority = 0;
constexpr unsigned defaultStack = 0;

/** A thread body made of a function. */
class Body : public Runnable {
public:
    explicit Body(std::function<void()> bodyFunction = [] {}) : function(std::move(bodyFunction)) {}

    void Run() override {
        threadId = gettid();
        function();
    }
    void Stop() override {}

    std::atomic<pid_t> threadId = 0;

private:
    const std::function<void()> function;
};

std::string NameOfTask(pid_t threadId) {
    std::string name = test::ReadWholeFile("/proc/self/task/" + std::to_string(threadId) + "/comm");
    return name.empty() ? name : name.substr(0, name.size() - 1);
}

size_t CountTasks() {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

size_t AddressSpaceMib() {
    return std::stoul(test::ReadWholeFile("/proc/self/statm")) * static_cast<size_t>(sysconf(_SC_PAGESIZE)) >> 20U;
}

/** Runs a function on a thread made with these arguments and waits for its end. */
void RunOnThread(unsigned stackKiB, int priority, const std::function<void()>& function) {
    Body body(function);
    Thread thread("test", body, stackKiB, priority);
    thread.Run();
    thread.Join();
}

size_t OwnStackSize() {
    pthread_attr_t attributes{};
    size_t size = 0;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstacksize(&attributes, &size);
    pthread_attr_destroy(&attributes);
    return size;
}

TEST(Thread, RunsTheBodyOnAThreadOfItsOwn) {
    Body body;
    Thread thread("test", body, defaultStack, defaultPriority);
    thread.Run();
    thread.Join();
    EXPECT_NE(body.threadId, 0);
    EXPECT_NE(body.threadId, gettid());
}

TEST(Thread, RunsNothingBeforeItIsStarted) {
    bool ran = false;
    {
        Body body([&ran] { ran = true; });
        Thread thread("test", body, defaultStack, defaultPriority);
        thread.Join();
    }
    EXPECT_FALSE(ran);
}

TEST(Thread, ShowsItsNameCutTo15BytesToTheSystem) {
    const std::pair<const char*, const char*> table[] = {
        {"short", "short"},
        {"15 bytes exactl", "15 bytes exactl"},
        {"TimerEventSource", "TimerEventSourc"},
        {"EventServerSource", "EventServerSour"},
        {"", ""},
    };
    for (const auto& [name, shown] : table) {
        std::atomic<bool> done = false;
        Body body([&done] { test::WaitUntil([&done] { return done.load(); }); });
        Thread thread(name, body, defaultStack, defaultPriority);
        thread.Run();
        EXPECT_TRUE(test::WaitUntil([&body] { return body.threadId != 0; }));
        EXPECT_EQ(NameOfTask(body.threadId), shown);
        done = true;
        thread.Join();
    }
}

TEST(Thread, TakesItsStackSizeInKiB) {
    // More than the system's default, so that no stack of an earlier thread is taken again.
    constexpr unsigned stackKiB = 20480;
    constexpr size_t room = size_t{512} * 1024;
    size_t size = 0;
    RunOnThread(stackKiB, defaultPriority, [&size] { size = OwnStackSize(); });
    // The system may add what it needs for itself.
    EXPECT_GE(size, size_t{stackKiB} * 1024);
    EXPECT_LT(size, size_t{stackKiB} * 1024 + room);
}

TEST(Thread, HasTheSystemsStackSizeIfNoneIsGiven) {
    // Larger than any other here, so that no stack of an earlier thread is taken again.
    constexpr size_t systemSize = size_t{40} << 20;
    constexpr size_t room = size_t{512} * 1024;
    pthread_attr_t before{};
    pthread_attr_t attributes{};
    pthread_getattr_default_np(&before);
    pthread_getattr_default_np(&attributes);
    pthread_attr_setstacksize(&attributes, systemSize);
    ASSERT_EQ(pthread_setattr_default_np(&attributes), 0);
    size_t size = 0;
    RunOnThread(defaultStack, defaultPriority, [&size] { size = OwnStackSize(); });
    pthread_setattr_default_np(&before);
    pthread_attr_destroy(&attributes);
    pthread_attr_destroy(&before);
    EXPECT_GE(size, systemSize);
    EXPECT_LT(size, systemSize + room);
}

TEST(Thread, AStackThatIsTooSmallForTheSystemIsMadeLargeEnough) {
    bool ran = false;
    RunOnThread(1, defaultPriority, [&ran] { ran = true; });
    EXPECT_TRUE(ran);
}

TEST(Thread, PriorityZeroIsTheDefaultScheduling) {
    int policy = -1;
    sched_param parameters{};
    RunOnThread(defaultStack, defaultPriority, [&] { pthread_getschedparam(pthread_self(), &policy, &parameters); });
    EXPECT_EQ(policy, SCHED_OTHER);
    EXPECT_EQ(parameters.sched_priority, 0);
}

TEST(Thread, AnyOtherPriorityIsThatOfRoundRobinOrRefused) {
    int policy = -1;
    sched_param parameters{};
    try {
        RunOnThread(defaultStack, 1, [&] { pthread_getschedparam(pthread_self(), &policy, &parameters); });
    } catch (const Exception& exception) {
        EXPECT_STREQ(exception.what(), "Thread test cannot be started: Operation not permitted");
        return;
    }
    EXPECT_EQ(policy, SCHED_RR);
    EXPECT_EQ(parameters.sched_priority, 1);
}

TEST(Thread, AStartThatTheSystemRefusesThrowsAndNamesTheThread) {
    Body body;
    Thread thread("greedy", body, 1U << 31U, defaultPriority);
    EXPECT_THAT([&] { thread.Run(); },
                FailsWith(AllOf(HasSubstr("greedy"), HasSubstr("Resource temporarily unavailable"))));
    thread.Join();
    EXPECT_EQ(body.threadId, 0);
}

TEST(Thread, ASecondStartThrows) {
    std::atomic<bool> done = false;
    std::atomic<int> runs = 0;
    Body body([&] {
        ++runs;
        test::WaitUntil([&done] { return done.load(); });
    });
    Thread thread("test", body, defaultStack, defaultPriority);
    thread.Run();
    EXPECT_THAT([&] { thread.Run(); }, FailsWith(HasSubstr("test")));
    done = true;
    thread.Join();
    EXPECT_THROW(thread.Run(), Exception);
    EXPECT_EQ(runs, 1);
}

TEST(Thread, ItsRunnableKnowsItForAsLongAsItExists) {
    Body body;
    EXPECT_EQ(body.GetCurrentThread(), nullptr);
    {
        Thread thread("test", body, defaultStack, defaultPriority);
        EXPECT_EQ(body.GetCurrentThread(), &thread);
        thread.Run();
        EXPECT_EQ(body.GetCurrentThread(), &thread);
        thread.Join();
        EXPECT_EQ(body.GetCurrentThread(), &thread);
    }
    EXPECT_EQ(body.GetCurrentThread(), nullptr);
}

TEST(Thread, OfTwoOfOneRunnableTheLaterIsKnownUntilItGoes) {
    Body body;
    auto first = std::make_unique<Thread>("first", body, defaultStack, defaultPriority);
    {
        Thread second("second", body, defaultStack, defaultPriority);
        EXPECT_EQ(body.GetCurrentThread(), &second);
        first.reset();
        EXPECT_EQ(body.GetCurrentThread(), &second);
    }
    EXPECT_EQ(body.GetCurrentThread(), nullptr);
}

TEST(Thread, ItsBodySeesItsOwnThread) {
    Thread* seen = nullptr;
    Body* self = nullptr;
    Body body([&] { seen = self->GetCurrentThread(); });
    self = &body;
    Thread thread("test", body, defaultStack, defaultPriority);
    thread.Run();
    thread.Join();
    EXPECT_EQ(seen, &thread);
}

TEST(Thread, ARunnableMayHaveOneThreadAfterTheOther) {
    std::atomic<int> runs = 0;
    Body body([&runs] { ++runs; });
    for (int round = 0; round < 3; ++round) {
        Thread thread("test", body, defaultStack, defaultPriority);
        thread.Run();
        thread.Join();
    }
    EXPECT_EQ(runs, 3);
}

TEST(Thread, JoiningTwiceIsHarmless) {
    Body body;
    Thread thread("test", body, defaultStack, defaultPriority);
    thread.Run();
    thread.Join();
    thread.Join();
    EXPECT_NE(body.threadId, 0);
}

TEST(Thread, ItsDestructorWaitsForTheBody) {
    std::atomic<bool> leave = false;
    bool left = false;
    Body body([&] {
        test::WaitUntil([&leave] { return leave.load(); });
        left = true;
    });
    auto thread = std::make_unique<Thread>("test", body, defaultStack, defaultPriority);
    thread->Run();
    leave = true;
    thread.reset();
    EXPECT_TRUE(left);
}

TEST(Thread, AnExceptionThatLeavesTheBodyIsLoggedWithTheThreadsNameAndEndsOnlyTheThread) {
    const test::LogCapture log(core::LogLevel::Information);
    for (const std::function<void()>& throwing :
         {std::function<void()>([] { throw Exception("Unable to open %s", "FIFO"); }),
          std::function<void()>([] { std::string().at(0); }), std::function<void()>([] { throw 7; })}) {
        Body body(throwing);
        Thread thread("EventServerSource", body, defaultStack, defaultPriority);
        thread.Run();
        thread.Join();
    }
    const std::vector<test::LogRecord> records = log.Records();
    ASSERT_EQ(records.size(), 3U);
    for (const test::LogRecord& record : records) {
        EXPECT_EQ(record.level, "Error");
        EXPECT_EQ(record.logger, "kelto.osa");
        EXPECT_THAT(record.text, HasSubstr("EventServerSource"));
    }
    EXPECT_THAT(records[0].text, HasSubstr("Unable to open FIFO"));
    EXPECT_THAT(records[1].text, HasSubstr("basic_string::at"));
    EXPECT_THAT(records[2].text, HasSubstr("unknown exception"));
}

TEST(Thread, ABodyThatReturnsLogsNothing) {
    const test::LogCapture log;
    RunOnThread(defaultStack, defaultPriority, [] {});
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(Thread, ManyThreadsLeaveNoStackBehind) {
    constexpr unsigned stackKiB = 4096;
    RunOnThread(stackKiB, defaultPriority, [] {});
    const size_t before = AddressSpaceMib();
    for (int number = 0; number < 64; ++number) {
        RunOnThread(stackKiB, defaultPriority, [] {});
    }
    EXPECT_LT(AddressSpaceMib() - before, 64U * 4 / 2);
}

TEST(Thread, ManyThreadsLeaveNoTaskBehind) {
    // Once before: ThreadSanitizer makes a thread of its own with the first one.
    RunOnThread(defaultStack, defaultPriority, [] {});
    const size_t before = CountTasks();
    std::atomic<int> runs = 0;
    for (int round = 0; round < 10; ++round) {
        std::vector<std::unique_ptr<Body>> bodies;
        std::vector<std::unique_ptr<Thread>> threads;
        for (int number = 0; number < 20; ++number) {
            bodies.push_back(std::make_unique<Body>([&runs] { ++runs; }));
            threads.push_back(std::make_unique<Thread>("test", *bodies.back(), 256, defaultPriority));
            threads.back()->Run();
        }
        threads.clear();
    }
    EXPECT_EQ(runs, 200);
    EXPECT_TRUE(test::WaitUntil([before] { return CountTasks() <= before; }));
}

}  // namespace

}  // namespace kelto::osa
