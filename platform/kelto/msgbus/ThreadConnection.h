#pragma once

#include "kelto/msgbus/BusConnection.h"

namespace kelto::msgbus {

/**
 * The calling thread's connection for calls, which goes with the thread; that of the thread which runs main stays until
 * the process ends.
 *
 * It hangs on a key and is no thread_local object: for one that has a destructor the C library registers that at the
 * thread's first use, and ends the process if it gets no memory for it.
 */
class ThreadConnection {
public:
    /**
     * The connection, opened now if there is none, or if the one that there is must not be used any more. Throws
     * kelto::osa::Exception if it cannot be opened by the deadline.
     */
    static BusConnection& Get(BusConnection::Clock::time_point deadline);

    /** Closes it, if there is one. */
    static void Close();
};

}  // namespace kelto::msgbus
