#pragma once

#include "camera/ActionLog.h"
#include "camera/AlarmV3.h"
#include "camera/MotionState.h"
#include "camera/PresetsV2.h"
#include "camera/RecordingInformation.h"
#include "camera/RelayV3.h"
#include "camera/Service.h"
#include "camera/Tour.h"

#include <array>

namespace kelto::vcam {

/** The services of a camera, and the one through which they are driven and watched. */
class VirtualCamera : public Service {
public:
    VirtualCamera(Bus& systemBus, EventLoop& loop);

    /** Takes the bus names of all services. Throws Failure. */
    void TakeNames();

    const Head& GetHead() { return motionState.GetHead(); }

private:
    void SetAlarm(Arguments& arguments, Results& results);
    void SetIdleState(Arguments& arguments, Results& results);
    void SetRecording(Arguments& arguments, Results& results);
    void RaiseAlert(Arguments& arguments, Results& results);
    void GetActions(Arguments& arguments, Results& results);
    void ClearActions(Arguments& arguments, Results& results);
    void SetFault(Arguments& arguments, Results& results);

    static const sd_bus_vtable methods[];
    ActionLog actions;
    AlarmV3 alarms;
    RelayV3 relays;
    MotionState motionState;
    PresetsV2 presets;
    Tour tour;
    RecordingInformation recordingInformation;
    const std::array<Provider*, 6> providers;
};

}  // namespace kelto::vcam
