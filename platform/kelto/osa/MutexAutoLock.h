#pragma once

#include "kelto/osa/Mutex.h"

namespace kelto::osa {

/** Holds a Mutex for the length of a scope; waits for it without time limit. The Mutex must outlive the scope. */
class KELTO_THREAD_SAFETY(scoped_lockable) [[nodiscard]] MutexAutoLock {
public:
    explicit MutexAutoLock(Mutex& lockedMutex) KELTO_THREAD_SAFETY(acquire_capability(lockedMutex))
        : mutex(lockedMutex) {
        mutex.Lock();
    }
    ~MutexAutoLock() KELTO_THREAD_SAFETY(release_capability()) { mutex.Unlock(); }
    MutexAutoLock(const MutexAutoLock&) = delete;
    MutexAutoLock& operator=(const MutexAutoLock&) = delete;

private:
    Mutex& mutex;
};

}  // namespace kelto::osa
