#pragma once

#include <mutex>
#include <string>

/**
 * What clang checks of locks (-Wthread-safety): which field a lock guards, which function takes, releases or needs one.
 * Other compilers see nothing of it.
 *
 * Fields under a std::mutex have a comment instead: the standard library says nothing to the check, and a wait on a
 * condition variable is beyond it.
 */
#ifdef __clang__
#define KELTO_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define KELTO_THREAD_SAFETY(attribute)
#endif

namespace kelto::osa {

/**
 * A recursive lock with a name for whoever debugs a deadlock.
 *
 * The owning thread may take it again; it is free when it has been released as often as taken. There is no time limit.
 */
class KELTO_THREAD_SAFETY(capability("mutex")) Mutex {
public:
    explicit Mutex(const char* lockName) : name(lockName) {}
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void Lock() KELTO_THREAD_SAFETY(acquire_capability()) { mutex.lock(); }

    /** Takes the lock if that needs no waiting; says whether it did. */
    bool TryLock() KELTO_THREAD_SAFETY(try_acquire_capability(true)) { return mutex.try_lock(); }

    void Unlock() KELTO_THREAD_SAFETY(release_capability()) { mutex.unlock(); }

    const std::string& GetName() const { return name; }

private:
    const std::string name;
    std::recursive_mutex mutex;
};

}  // namespace kelto::osa
