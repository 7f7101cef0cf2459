#pragma once

#include "kelto/core/IVoidDelegate1.h"

#include <memory>

namespace kelto::interfaces {

/** Where one hears of a provider's changes. All operations may be called from any thread. */
template <typename Argument>
class INotificationPoint {
public:
    INotificationPoint() = default;
    virtual ~INotificationPoint() = default;
    INotificationPoint(const INotificationPoint&) = delete;
    INotificationPoint& operator=(const INotificationPoint&) = delete;

    /**
     * Has a delegate called for each change, one at a time, on a thread of its own: it may block without delaying
     * others. What it throws is logged. Never fails for want of a bus.
     */
    virtual void Add(std::unique_ptr<core::IVoidDelegate1<Argument>> delegate) = 0;

    /**
     * Takes all delegates of an object away. Returns only when no call to it is in flight, at once from inside such a
     * call, so that the object may be destroyed right after.
     */
    virtual void Remove(const void* target) = 0;
};

}  // namespace kelto::interfaces
