#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace kelto::msgbus {
class IMsgBus;
}

namespace kelto::interfaces {

/**
 * The head's stored sequences of positions.
 *
 * All operations may be called from any thread; each asks the service, takes 5 s at most, and throws
 * kelto::osa::Exception with the error's name and text.
 */
class ITourProvider {
public:
    ITourProvider() = default;
    virtual ~ITourProvider() = default;
    ITourProvider(const ITourProvider&) = delete;
    ITourProvider& operator=(const ITourProvider&) = delete;

    /** Makes a client. Never fails for want of a bus. */
    static std::unique_ptr<ITourProvider> CreateClient(msgbus::IMsgBus* bus);

    /** Starts a tour. @param level what the service ranks commands by */
    virtual void Start(const std::string& id, int32_t level) = 0;
};

}  // namespace kelto::interfaces
