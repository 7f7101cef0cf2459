#pragma once

#include "camera/device/RelayConfiguration.h"
#include "camera/runtime/Timer.h"

#include <cstdint>
#include <string>

namespace kelto::vcam {

class EventLoop;

/** An output relay; each change of it is a line on standard output. */
class Relay {
public:
    /** @param relayName what it is called in those lines */
    Relay(EventLoop& eventLoop, std::string relayName);

    const RelayConfiguration& GetConfiguration() const { return configuration; }
    /** The pulses under way keep the times that they have begun with. Throws Refusal if a value makes no sense. */
    void SetConfiguration(const RelayConfiguration& wanted);

    bool IsOn() const { return on; }
    /** The number of the pulse under way, from 1, and of how many it is one; both are 0 if there is none. */
    int32_t GetPulse() const { return IsPulsing() ? pulse : 0; }
    int32_t GetPulses() const { return IsPulsing() ? pulses.pulseCount : 0; }

    /** 0 off, 1 on, 2 toggle, 3 pulse; ends the pulses under way. Throws Refusal for any other mode. */
    void Activate(int32_t mode);

private:
    void Set(bool wanted, const std::string& why = "");
    void SayState(const std::string& why) const;
    void BeginPulse();
    void EndPulse();
    std::string PulseInWords() const;
    bool IsPulsing() const { return timer.IsStarted(); }

    const std::string name;
    Timer timer;
    RelayConfiguration configuration;
    bool on = false;
    RelayConfiguration pulses;  ///< of the pulses under way
    int32_t pulse = 0;          ///< number of the current one, from 1
    uint64_t due = 0;           ///< when the next change is due, so that being late once delays nothing else
};

}  // namespace kelto::vcam
