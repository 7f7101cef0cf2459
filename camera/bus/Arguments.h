#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <string>

namespace kelto::vcam {

/** The arguments of a call, one after the other. That they are of the right types has been seen to by libsystemd. */
class Arguments {
public:
    explicit Arguments(sd_bus_message* call) : message(call) {}

    std::string ReadString();
    int32_t ReadInt();
    bool ReadBool();
    double ReadDouble();

    /** Adds all that is left to another message. */
    void CopyTo(sd_bus_message* target);

    /** All arguments of a call as text: strings bare, numbers decimal, "true" or "false", with ", " between them. */
    static std::string AsText(sd_bus_message* call);

private:
    sd_bus_message* const message;
};

}  // namespace kelto::vcam
