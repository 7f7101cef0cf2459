#include "camera/device/Relay.h"

#include "camera/runtime/EventLoop.h"
#include "camera/runtime/Output.h"
#include "camera/runtime/Refusal.h"

#include <utility>

namespace kelto::vcam {

namespace {

enum Mode : int32_t { Off = 0, On = 1, Toggle = 2, Pulse = 3 };

uint64_t Microseconds(int32_t milliseconds) {
    return static_cast<uint64_t>(milliseconds) * 1'000;
}

void CheckAtLeast(int32_t value, int32_t least, const std::string& what) {
    if (value < least) {
        throw Refusal("InvalidValue",
                      what + " is " + std::to_string(value) + ", which is less than " + std::to_string(least));
    }
}

void CheckMode(int32_t mode) {
    if (mode < Off || mode > Pulse) {
        throw Refusal("InvalidValue",
                      "Mode is " + std::to_string(mode) + ", which is none of 0 off, 1 on, 2 toggle and 3 pulse");
    }
}

}  // namespace

Relay::Relay(EventLoop& eventLoop, std::string relayName) : name(std::move(relayName)), timer(eventLoop) {}

void Relay::SetConfiguration(const RelayConfiguration& wanted) {
    CheckMode(wanted.mode);
    CheckAtLeast(wanted.onMs, 0, "The on interval");
    CheckAtLeast(wanted.offMs, 0, "The off interval");
    CheckAtLeast(wanted.pulseCount, 1, "The pulse count");
    const bool reversed = wanted.polarity != configuration.polarity;
    configuration = wanted;
    if (reversed) {
        SayState(", polarity reversed");
    }
}

void Relay::Activate(int32_t mode) {
    CheckMode(mode);
    timer.Cancel();
    if (mode == Pulse) {
        pulses = configuration;
        pulse = 1;
        due = EventLoop::Now();
        BeginPulse();
    } else {
        Set(mode == On || (mode == Toggle && !on));
    }
}

void Relay::Set(bool wanted, const std::string& why) {
    if (on == wanted) {
        return;
    }
    on = wanted;
    SayState(why);
}

void Relay::SayState(const std::string& why) const {
    const bool closed = on != configuration.polarity;
    Say("relay %s %s (contact %s)%s", name.c_str(), on ? "on" : "off", closed ? "closed" : "open", why.c_str());
}

void Relay::BeginPulse() {
    Set(true, PulseInWords());
    due += Microseconds(pulses.onMs);
    timer.StartAt(due, [this] { EndPulse(); });
}

void Relay::EndPulse() {
    Set(false, PulseInWords());
    if (pulse == pulses.pulseCount) {
        return;
    }
    ++pulse;
    due += Microseconds(pulses.offMs);
    timer.StartAt(due, [this] { BeginPulse(); });
}

std::string Relay::PulseInWords() const {
    return ", pulse " + std::to_string(pulse) + " of " + std::to_string(pulses.pulseCount);
}

}  // namespace kelto::vcam
