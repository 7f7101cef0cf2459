#include "kelto/osa/Thread.h"

#include "kelto/core/Logger.h"
#include "kelto/osa/Exception.h"
#include "kelto/osa/Runnable.h"
#include "kelto/osa/Signal.h"

#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <exception>

namespace kelto::osa {

namespace {

constexpr size_t maxNameLength = 15;
constexpr size_t bytesPerMib = size_t{1} << 20;
constexpr int32_t firstRepeatMs = 10;
constexpr int32_t longestRepeatMs = 100;

thread_local Thread* current = nullptr;

extern "C" void IgnoreAlarm(int) {}

void KeepAlarmFromKilling() {
    struct sigaction action {};
    if (sigaction(SIGALRM, nullptr, &action) != 0 || (action.sa_flags & SA_SIGINFO) != 0 ||
        action.sa_handler != SIG_DFL) {
        return;
    }
    action = {};
    action.sa_handler = IgnoreAlarm;
    action.sa_flags = SA_RESTART;
    sigaction(SIGALRM, &action, nullptr);
}

/** The thread attributes of one start, released with the scope. */
class Attributes {
public:
    Attributes(unsigned stackKiB, int priority) {
        pthread_attr_init(&attributes);
        if (stackKiB != 0) {
            const uint64_t smallest = static_cast<uint64_t>(sysconf(_SC_THREAD_STACK_MIN));
            // More than there are addresses for is refused at the start; the guard page still has to be added to it.
            const uint64_t largest = SIZE_MAX - bytesPerMib;
            pthread_attr_setstacksize(&attributes,
                                      static_cast<size_t>(std::clamp(uint64_t{stackKiB} * 1024, smallest, largest)));
        }
        if (priority != 0) {
            sched_param parameters{};
            parameters.sched_priority = priority;
            pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
            pthread_attr_setschedpolicy(&attributes, SCHED_RR);
            pthread_attr_setschedparam(&attributes, &parameters);
        }
    }
    ~Attributes() { pthread_attr_destroy(&attributes); }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;

    const pthread_attr_t* Get() const { return &attributes; }

private:
    pthread_attr_t attributes{};
};

}  // namespace

Thread::Thread(const char* threadName, Runnable& body, unsigned stackSizeKiB, int schedulingPriority)
    : logger(core::Logger::GetLogger("kelto.osa")),
      name(threadName),
      runnable(body),
      stackKiB(stackSizeKiB),
      priority(schedulingPriority) {
    runnable.thread = this;
}

Thread::~Thread() {
    Join();
    // A later thread of the same runnable stays announced.
    Thread* self = this;
    runnable.thread.compare_exchange_strong(self, nullptr);
}

void Thread::Run() {
    if (started) {
        throw Exception("Thread %s has been started already", name.c_str());
    }
    const Attributes attributes(stackKiB, priority);
    // Held over the start, so that a Signal cannot fall between the thread's start and the knowledge of its handle.
    const std::lock_guard lock(stateMutex);
    const int error = pthread_create(&handle, attributes.Get(), Main, this);
    if (error != 0) {
        throw Exception("Thread %s cannot be started: %s", name.c_str(), std::strerror(error));
    }
    started = true;
    joinable = true;
    active = true;
}

void Thread::Join() {
    if (!joinable) {
        return;
    }
    for (int32_t pause = firstRepeatMs; !WaitUntilFinished(pause); pause = std::min(2 * pause, longestRepeatMs)) {
        SendSignal();
    }
    pthread_join(handle, nullptr);
    joinable = false;
}

void Thread::Signal(int number) {
    {
        const std::lock_guard lock(stateMutex);
        if (!active) {
            return;
        }
        interruption = number;
    }
    stateChanged.notify_all();
    SendSignal();
}

void Thread::SendSignal() {
    // Under the lock the thread cannot end, so the handle stays valid.
    const std::lock_guard lock(stateMutex);
    if (!active || interruption == 0) {
        return;
    }
    if (interruption == SIGALRM) {
        KeepAlarmFromKilling();
    }
    pthread_kill(handle, interruption);
}

bool Thread::WaitUntilFinished(int32_t milliseconds) {
    std::unique_lock lock(stateMutex);
    return stateChanged.wait_for(lock, std::chrono::milliseconds(milliseconds), [this] { return !active; });
}

void* Thread::Main(void* self) {
    auto& thread = *static_cast<Thread*>(self);
    current = &thread;
    pthread_setname_np(pthread_self(), thread.name.substr(0, maxNameLength).c_str());
    thread.RunBody();
    const std::lock_guard lock(thread.stateMutex);
    thread.active = false;
    thread.stateChanged.notify_all();
    return nullptr;
}

void Thread::RunBody() {
    try {
        runnable.Run();
    } catch (const std::exception& exception) {
        logger.Error("Thread %s ended by an exception: %s", name.c_str(), exception.what());
    } catch (...) {
        logger.Error("Thread %s ended by an unknown exception", name.c_str());
    }
}

void Thread::SleepFor(int32_t milliseconds) {
    std::unique_lock lock(stateMutex);
    const std::chrono::milliseconds time(milliseconds);
    if (stateChanged.wait_for(lock, time, [this] { return interruption != 0; })) {
        throw osa::Signal(interruption);
    }
}

void Thread::CurrentThread::Sleep(int32_t milliseconds) {
    if (current != nullptr) {
        current->SleepFor(milliseconds);
        return;
    }
    timespec rest{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    while (clock_nanosleep(CLOCK_MONOTONIC, 0, &rest, &rest) == EINTR) {
    }
}

}  // namespace kelto::osa
