#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kelto::msgbus {
class IMsgBus;
}

namespace kelto::interfaces {

/**
 * The camera's relay outputs, grouped in named banks.
 *
 * All operations may be called from any thread; each asks the service, takes 5 s at most, and throws
 * kelto::osa::Exception with the error's name and text. Intervals are in milliseconds.
 */
class IRelayV3Provider {
public:
    IRelayV3Provider() = default;
    virtual ~IRelayV3Provider() = default;
    IRelayV3Provider(const IRelayV3Provider&) = delete;
    IRelayV3Provider& operator=(const IRelayV3Provider&) = delete;

    /** Makes a client. Never fails for want of a bus. */
    static std::unique_ptr<IRelayV3Provider> CreateClient(msgbus::IMsgBus* bus);

    /** All banks in the service's order. */
    virtual std::vector<std::string> GetBankNames() = 0;

    /** Whether a bank belongs to another device. */
    virtual bool IsRemote(const std::string& bankName) = 0;

    /** Reads how a relay is set up; the result is the service's. */
    virtual bool GetConfiguration(const std::string& bankName, int32_t index, bool& polarity, int32_t& mode,
                                  int32_t& onIntervalMs, int32_t& offIntervalMs, int32_t& pulseCount) = 0;

    /** Sets a relay up; the result is the service's. */
    virtual bool SetConfiguration(const std::string& bankName, int32_t index, bool polarity, int32_t mode,
                                  int32_t onIntervalMs, int32_t offIntervalMs, int32_t pulseCount) = 0;

    /** Drives a relay; the result is the service's. */
    virtual bool Activate(const std::string& bankName, int32_t index, int32_t mode) = 0;
};

}  // namespace kelto::interfaces
