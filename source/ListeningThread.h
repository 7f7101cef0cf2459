#pragma once

#include "kelto/osa/Thread.h"

#include <condition_variable>
#include <list>
#include <mutex>

namespace kelto::osa {
class Runnable;
}

namespace kelto::halvek::source {

/**
 * The thread of a source that has one.
 *
 * A source's body marks itself running when it is ready, and a stop that came before would be undone by that. So Start
 * waits until the body has opened the latch: whoever stops the source after it has started can never stop too early.
 * Start and Finish are for the event monitor's thread.
 */
class ListeningThread {
public:
    /** Opens the latch when the body leaves, in whatever way. Stands first in the body. */
    class LatchOpener {
    public:
        explicit LatchOpener(ListeningThread& openedThread) : thread(openedThread) {}
        ~LatchOpener() { thread.OpenLatch(); }
        LatchOpener(const LatchOpener&) = delete;
        LatchOpener& operator=(const LatchOpener&) = delete;

    private:
        ListeningThread& thread;
    };

    /**
     * Starts the body on a new thread, beside any that there is, and waits until it has opened the latch. Throws
     * kelto::osa::Exception.
     */
    void Start(const char* name, osa::Runnable& body);

    /** Called by the body when it is running. Any thread, any number of times. */
    void OpenLatch();

    /** Joins and destroys the thread, or all of them if it was started more than once. */
    void Finish();

private:
    std::list<osa::Thread> threads;

    // Guarded by mutex.
    std::mutex mutex;
    std::condition_variable changed;
    bool latchOpen = false;
};

}  // namespace kelto::halvek::source
