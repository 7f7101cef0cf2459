#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace kelto::msgbus {
class IMsgBus;
}

namespace kelto::interfaces {

/**
 * The head's stored positions.
 *
 * All operations may be called from any thread; each asks the service, takes 5 s at most, and throws
 * kelto::osa::Exception with the error's name and text.
 */
class IPresetsV2Provider {
public:
    IPresetsV2Provider() = default;
    virtual ~IPresetsV2Provider() = default;
    IPresetsV2Provider(const IPresetsV2Provider&) = delete;
    IPresetsV2Provider& operator=(const IPresetsV2Provider&) = delete;

    /** Makes a client. Never fails for want of a bus. */
    static std::unique_ptr<IPresetsV2Provider> CreateClient(msgbus::IMsgBus* bus);

    /** Moves the head to a position. @param speed 1.0 is full speed @param level what the service ranks commands by */
    virtual void GoTo(const std::string& id, double speed, int32_t level) = 0;

    /** Whether the head stands at a position. */
    virtual bool IsAt(const std::string& id) = 0;
};

}  // namespace kelto::interfaces
