#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>

namespace kelto::vcam {

/** What a method answers, one result after the other. */
class Results {
public:
    explicit Results(sd_bus_message* reply) : message(reply) {}

    void AppendBool(bool value);
    void AppendInt(int32_t value);

    /** For what is neither of the two. */
    sd_bus_message* GetMessage() { return message; }

private:
    sd_bus_message* const message;
};

}  // namespace kelto::vcam
