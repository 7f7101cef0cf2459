#pragma once

#include "kelto/interfaces/INotificationPoint.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kelto::msgbus {
class IMsgBus;
}

namespace kelto::interfaces {

/**
 * The camera's alarm inputs, grouped in named banks.
 *
 * All operations may be called from any thread. The queries ask the service and take 5 s at most; they throw
 * kelto::osa::Exception with the error's name and text.
 */
class IAlarmV3Provider {
public:
    /** A change of an input. */
    struct StateChangeEventArgs {
        std::string bankName;
        int32_t index;
        bool active;
    };

    IAlarmV3Provider() = default;
    virtual ~IAlarmV3Provider() = default;
    IAlarmV3Provider(const IAlarmV3Provider&) = delete;
    IAlarmV3Provider& operator=(const IAlarmV3Provider&) = delete;

    /** Makes a client. Never fails for want of a bus. @param bus not owned, must outlive the client */
    static std::unique_ptr<IAlarmV3Provider> CreateClient(msgbus::IMsgBus* bus);

    /** All banks in the service's order. */
    virtual std::vector<std::string> GetBankNames() = 0;

    /** Whether a bank belongs to another device. */
    virtual bool IsRemote(const std::string& bankName) = 0;

    /** Tells every change of every input. */
    virtual INotificationPoint<StateChangeEventArgs>& OnStateChange() = 0;
};

}  // namespace kelto::interfaces
