#pragma once

#include <pthread.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

namespace kelto::core {
class Logger;
}

namespace kelto::osa {

class Runnable;

/**
 * One thread that runs one Runnable once.
 *
 * Made, started and joined by one owner; Signal may be called from any thread while the object exists.
 *
 * Interruption is sticky. A plain signal that arrives just before a sleep or a select is lost to it, so Signal first
 * marks the thread as interrupted, then wakes a Sleep through a condition variable and everything else through the
 * signal itself. From then on each Sleep of that thread raises kelto::osa::Signal at once, and Join repeats the signal
 * until the thread has ended, which covers a select that was entered a moment too late. Other signals, which the kernel
 * may deliver to any thread, do not end a sleep.
 */
class Thread {
public:
    /**
     * Prepares a thread; nothing runs before Run().
     *
     * @param threadName shown by the system's tools, cut to 15 bytes
     * @param body       not owned, must outlive this object; its GetCurrentThread() returns this object from now on
     * @param stackKiB   stack size in KiB, 0 for the system's default
     * @param priority   0 for the default scheduling, otherwise a SCHED_RR priority
     */
    Thread(const char* threadName, Runnable& body, unsigned stackKiB, int priority);

    /** Joins a thread that is still running. */
    ~Thread();

    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    /** Starts the thread, once. Throws Exception if the system refuses. */
    void Run();

    /** Waits until the body has returned; at once if it was never started. After Signal the signal is repeated
     * meanwhile. */
    void Join();

    /**
     * Interrupts the thread for good and sends it a signal; does nothing to a thread that has ended or never started.
     * If the signal is SIGALRM and its disposition is the default, which would end the process, an empty handler is
     * installed first; any other handler stays.
     */
    void Signal(int number);

    /** The calling thread. */
    class CurrentThread {
    public:
        /** Sleeps for the given milliseconds, by the monotonic clock; raises kelto::osa::Signal when interrupted. */
        static void Sleep(int32_t milliseconds);
    };

private:
    static void* Main(void* self);
    void RunBody();
    void SleepFor(int32_t milliseconds);
    void SendSignal();
    bool WaitUntilFinished(int32_t milliseconds);

    // Constant after construction. The logger is looked up there, since the thread itself could not report a failure.
    core::Logger& logger;
    const std::string name;
    Runnable& runnable;
    const unsigned stackKiB;
    const int priority;

    // Used by the owner only.
    bool started = false;
    bool joinable = false;

    // Guarded by stateMutex; the handle does not change any more once the thread has been started.
    pthread_t handle{};
    std::mutex stateMutex;
    std::condition_variable stateChanged;
    bool active = false;
    int interruption = 0;
};

}  // namespace kelto::osa
