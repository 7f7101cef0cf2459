#pragma once

#include "camera/service/Provider.h"

namespace kelto::vcam {

class Head;

/** Whether the head moves. */
class MotionState : public Provider {
public:
    MotionState(const ProviderContext& context, const Head& cameraHead);

    /** Tells everybody; whoever owns the head calls it at each change of the idle state. */
    void EmitIdleChanged(int32_t state);

private:
    void GetIdleState(Arguments& arguments, Results& results);

    static const sd_bus_vtable methods[];
    const Head& head;
};

}  // namespace kelto::vcam
