#pragma once

#include <mutex>
#include <string>

namespace kelto::osa {

/**
 * A recursive lock with a name for whoever debugs a deadlock.
 *
 * The owning thread may take it again; it is free when it has been released as often as taken. There is no time limit.
 */
class Mutex {
public:
    explicit Mutex(const char* lockName) : name(lockName) {}
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void Lock() { mutex.lock(); }

    /** Takes the lock if that needs no waiting; says whether it did. */
    bool TryLock() { return mutex.try_lock(); }

    void Unlock() { mutex.unlock(); }

    const std::string& GetName() const { return name; }

private:
    const std::string name;
    std::recursive_mutex mutex;
};

}  // namespace kelto::osa
