#include "camera/service/MotionState.h"

#include "camera/device/Head.h"

namespace kelto::vcam {

const sd_bus_vtable MotionState::methods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("GetIdleState", SD_BUS_NO_ARGS, SD_BUS_RESULT("i", state),
                            OnCall<&MotionState::GetIdleState>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_ARGS("IdleChanged", SD_BUS_ARGS("i", state), 0),
    SD_BUS_VTABLE_END,
};

MotionState::MotionState(const ProviderContext& context, const Head& cameraHead)
    : Provider(context, "MotionState", methods), head(cameraHead) {}

void MotionState::EmitIdleChanged(int32_t state) {
    Emit("IdleChanged", "i", state);
}

void MotionState::GetIdleState(Arguments&, Results& results) {
    results.AppendInt(head.GetIdleState());
}

}  // namespace kelto::vcam
