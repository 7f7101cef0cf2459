#pragma once

#include <mutex>
#include <utility>

namespace kelto::halvek {

/**
 * A value that threads share. It is copied in and out whole, under a lock of its own, so that nobody can hold the lock
 * across a call. Any thread.
 */
template <typename Value>
class Guarded {
public:
    Value Copy() const {
        const std::lock_guard lock(mutex);
        return value;
    }

    void Store(Value newValue) {
        const std::lock_guard lock(mutex);
        value = std::move(newValue);
    }

private:
    mutable std::mutex mutex;

    // Guarded by mutex.
    Value value;
};

}  // namespace kelto::halvek
