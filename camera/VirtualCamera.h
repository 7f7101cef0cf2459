#pragma once

#include "camera/bus/Service.h"
#include "camera/device/Head.h"
#include "camera/runtime/Output.h"
#include "camera/service/ActionLog.h"
#include "camera/service/AlarmV3.h"
#include "camera/service/MotionState.h"
#include "camera/service/PresetsV2.h"
#include "camera/service/RecordingInformation.h"
#include "camera/service/RelayV3.h"
#include "camera/service/Tour.h"

#include <array>

namespace kelto::vcam {

/** The camera: its hardware, its services, and the one through which they are driven and watched. */
class VirtualCamera : public Service {
public:
    VirtualCamera(Bus& systemBus, EventLoop& eventLoop);

    /** Takes the bus names of all services. Throws Failure. */
    void TakeNames();

    const Head& GetHead() const { return head; }

private:
    void SetAlarm(Arguments& arguments, Results& results);
    void SetIdleState(Arguments& arguments, Results& results);
    void SetRecording(Arguments& arguments, Results& results);
    void RaiseAlert(Arguments& arguments, Results& results);
    void GetActions(Arguments& arguments, Results& results);
    void ClearActions(Arguments& arguments, Results& results);
    void SetFault(Arguments& arguments, Results& results);
    void GetState(Arguments& arguments, Results& results);

    void TellLine(const char* line);
    void AppendHead(sd_bus_message* reply) const;
    void AppendFaults(sd_bus_message* reply) const;

    static const sd_bus_vtable methods[];
    ActionLog actions;
    const ProviderContext context;
    Head head;
    AlarmV3 alarms;
    RelayV3 relays;
    MotionState motionState;
    PresetsV2 presets;
    Tour tour;
    RecordingInformation recordingInformation;
    const std::array<Provider*, 6> providers;
    const LineListener lines;
};

}  // namespace kelto::vcam
