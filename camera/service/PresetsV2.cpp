#include "camera/service/PresetsV2.h"

#include "camera/device/Head.h"

namespace kelto::vcam {

const sd_bus_vtable PresetsV2::methods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("GoTo", SD_BUS_ARGS("s", id, "d", speed, "i", level), SD_BUS_NO_RESULT,
                            OnCall<&PresetsV2::GoTo>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("IsAt", SD_BUS_ARGS("s", id), SD_BUS_RESULT("b", at), OnCall<&PresetsV2::IsAt>,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

PresetsV2::PresetsV2(const ProviderContext& context, Head& cameraHead)
    : Provider(context, "PresetsV2", methods), head(cameraHead) {}

void PresetsV2::GoTo(Arguments& arguments, Results&) {
    const std::string id = arguments.ReadString();
    const double speed = arguments.ReadDouble();
    head.GoTo(id, speed, arguments.ReadInt());
}

void PresetsV2::IsAt(Arguments& arguments, Results& results) {
    results.AppendBool(head.IsAt(arguments.ReadString()));
}

}  // namespace kelto::vcam
