// Compiled by itself: clang must refuse it, and with LOCKED must not.

#include "env/ThreadSafety.h"
#include "kelto/osa/Mutex.h"
#include "kelto/osa/MutexAutoLock.h"

namespace kelto::halvek {

class Counter {
public:
    void Count() {
#ifdef LOCKED
        const osa::MutexAutoLock guard(lock);
#endif
        Increment();
        ++count;
    }

private:
    void Increment() HALVEK_REQUIRES(lock) {
        ++count;
    }

    osa::Mutex lock{"Counter"};
    int count HALVEK_GUARDED_BY(lock) = 0;
};

void CountOnce() {
    Counter().Count();
}

}  // namespace kelto::halvek
