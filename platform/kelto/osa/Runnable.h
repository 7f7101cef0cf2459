#pragma once

#include <atomic>

namespace kelto::osa {

class Thread;

/**
 * The body of a Thread.
 *
 * A Thread made for a runnable announces itself here for as long as it exists; the runnable does not own it.
 */
class Runnable {
public:
    Runnable() = default;
    virtual ~Runnable() = default;
    Runnable(const Runnable&) = delete;
    Runnable& operator=(const Runnable&) = delete;

    /** The thread body. An exception that leaves it is logged and ends the thread, not the process. */
    virtual void Run() = 0;

    /** Asks the body to end and returns without waiting for it. May be called from any other thread. */
    virtual void Stop() = 0;

    /** The thread object made for this runnable, or null when there is none. It may not have been started yet. */
    Thread* GetCurrentThread() const { return thread; }

private:
    friend class Thread;

    std::atomic<Thread*> thread = nullptr;
};

}  // namespace kelto::osa
