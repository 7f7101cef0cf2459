#pragma once

#include "camera/Head.h"
#include "camera/Provider.h"

namespace kelto::vcam {

/** Whether the head moves, and the head itself: nobody else hears of its changes first. */
class MotionState : public Provider {
public:
    MotionState(Bus& systemBus, EventLoop& eventLoop, ActionLog& actionLog);

    Head& GetHead() { return head; }

private:
    void GetIdleState(Arguments& arguments, Results& results);
    void OnIdleChanged(int32_t state);

    static const sd_bus_vtable methods[];
    Head head;
};

}  // namespace kelto::vcam
