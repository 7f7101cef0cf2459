#include "camera/bus/Results.h"

#include "camera/runtime/Failure.h"

namespace kelto::vcam {

void Results::AppendBool(bool value) {
    Check(sd_bus_message_append(message, "b", static_cast<int>(value)), "Cannot answer");
}

void Results::AppendInt(int32_t value) {
    Check(sd_bus_message_append(message, "i", value), "Cannot answer");
}

}  // namespace kelto::vcam
