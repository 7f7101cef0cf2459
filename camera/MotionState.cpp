#include "camera/MotionState.h"

namespace kelto::vcam {

const sd_bus_vtable MotionState::methods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("GetIdleState", SD_BUS_NO_ARGS, SD_BUS_RESULT("i", state),
                            OnCall<&MotionState::GetIdleState>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_ARGS("IdleChanged", SD_BUS_ARGS("i", state), 0),
    SD_BUS_VTABLE_END,
};

MotionState::MotionState(Bus& systemBus, EventLoop& eventLoop, ActionLog& actionLog)
    : Provider(systemBus, eventLoop, actionLog, "MotionState", methods),
      head(loop, [this](int32_t state) { OnIdleChanged(state); }) {}

void MotionState::GetIdleState(Arguments&, Results& results) {
    results.AppendInt(head.GetIdleState());
}

void MotionState::OnIdleChanged(int32_t state) {
    Emit("IdleChanged", "i", state);
}

}  // namespace kelto::vcam
