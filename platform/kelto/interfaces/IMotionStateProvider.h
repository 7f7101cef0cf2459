#pragma once

#include "kelto/interfaces/INotificationPoint.h"

#include <cstdint>
#include <memory>

namespace kelto::msgbus {
class IMsgBus;
}

namespace kelto::interfaces {

/**
 * Whether the pan/tilt head moves.
 *
 * All operations may be called from any thread. The query asks the service and takes 5 s at most; it throws
 * kelto::osa::Exception with the error's name and text.
 */
class IMotionStateProvider {
public:
    IMotionStateProvider() = default;
    virtual ~IMotionStateProvider() = default;
    IMotionStateProvider(const IMotionStateProvider&) = delete;
    IMotionStateProvider& operator=(const IMotionStateProvider&) = delete;

    /** Makes a client. Never fails for want of a bus. @param bus not owned, must outlive the client */
    static std::unique_ptr<IMotionStateProvider> CreateClient(msgbus::IMsgBus* bus);

    /** 0 when the head is at rest. */
    virtual int32_t GetIdleState() = 0;

    /** Tells every new idle state. */
    virtual INotificationPoint<int32_t>& OnIdleChange() = 0;
};

}  // namespace kelto::interfaces
