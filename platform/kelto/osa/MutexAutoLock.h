#pragma once

#include "kelto/osa/Mutex.h"

namespace kelto::osa {

/** Holds a Mutex for the length of a scope; waits for it without time limit. The Mutex must outlive the scope. */
class [[nodiscard]] MutexAutoLock {
public:
    explicit MutexAutoLock(Mutex& lockedMutex) : mutex(lockedMutex) { mutex.Lock(); }
    ~MutexAutoLock() { mutex.Unlock(); }
    MutexAutoLock(const MutexAutoLock&) = delete;
    MutexAutoLock& operator=(const MutexAutoLock&) = delete;

private:
    Mutex& mutex;
};

}  // namespace kelto::osa
