#pragma once

#include "kelto/osa/Exception.h"

namespace kelto::osa {

/**
 * Raised by Thread::CurrentThread::Sleep in a thread that Thread::Signal interrupted.
 *
 * Catch it before Exception: it says that the thread is to end, not that something failed.
 */
class Signal : public Exception {
public:
    /** @param number the signal that was sent, SIGALRM for instance */
    explicit Signal(int number);

    /** The signal that was sent. */
    int GetNumber() const { return number; }

private:
    int number;
};

}  // namespace kelto::osa
