#pragma once

#include "kelto/interfaces/INotificationPoint.h"

#include <algorithm>
#include <future>
#include <list>
#include <memory>
#include <mutex>

namespace kelto::test {

/** A notification point that a test sets off by hand. Any number of threads may use it. */
template <typename Argument>
class FakeNotificationPoint : public interfaces::INotificationPoint<Argument> {
public:
    void Add(std::unique_ptr<core::IVoidDelegate1<Argument>> delegate) override {
        const std::lock_guard guard(lock);
        delegates.push_back(std::move(delegate));
        ++added;
    }

    void Remove(const void* target) override {
        const std::lock_guard guard(lock);
        delegates.remove_if([&](const auto& delegate) { return delegate->GetTarget() == target; });
    }

    /** Calls every delegate on the calling thread. What one throws comes out, and costs those behind it the call. */
    void Notify(const Argument& argument) {
        // Held over the calls, so that a removal waits for them; one from inside does not, and must not free them.
        const std::lock_guard guard(lock);
        const std::list<std::shared_ptr<core::IVoidDelegate1<Argument>>> called = delegates;
        for (const auto& delegate : called) {
            delegate->Invoke(argument);
        }
    }

    /** Calls every delegate on a thread of its own; the result is there when all have returned. */
    std::future<void> NotifyFromOtherThread(const Argument& argument) {
        return std::async(std::launch::async, [this, argument] { Notify(argument); });
    }

    /** How many delegates there are, and how many there ever were. */
    size_t Count() const {
        const std::lock_guard guard(lock);
        return delegates.size();
    }
    size_t CountAdded() const {
        const std::lock_guard guard(lock);
        return added;
    }

private:
    mutable std::recursive_mutex lock;
    std::list<std::shared_ptr<core::IVoidDelegate1<Argument>>> delegates;
    size_t added = 0;
};

}  // namespace kelto::test
