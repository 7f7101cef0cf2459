#include "camera/service/RecordingInformation.h"

#include "camera/runtime/Failure.h"
#include "camera/runtime/Output.h"

namespace kelto::vcam {

const sd_bus_vtable RecordingInformation::methods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("GetSummary", SD_BUS_ARGS("s", client), SD_BUS_RESULT("i", a, "i", b, "i", c, "i", d),
                            OnCall<&RecordingInformation::GetSummary>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

RecordingInformation::RecordingInformation(const ProviderContext& context)
    : Provider(context, "RecordingInformation", methods) {}

void RecordingInformation::SetRecording(bool first, bool second) {
    a = first;
    b = second;
    Say("recording %s (%d, %d)", a || b ? "on" : "off", static_cast<int>(a), static_cast<int>(b));
}

void RecordingInformation::AppendState(sd_bus_message* reply) const {
    Check(sd_bus_message_append(reply, "(bb)", static_cast<int>(a), static_cast<int>(b)), "Cannot answer");
}

void RecordingInformation::GetSummary(Arguments&, Results& results) {
    results.AppendInt(static_cast<int32_t>(a));
    results.AppendInt(static_cast<int32_t>(b));
    results.AppendInt(0);
    results.AppendInt(0);
}

}  // namespace kelto::vcam
