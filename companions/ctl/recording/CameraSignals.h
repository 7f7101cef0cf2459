#pragma once

#include "companions/common/UniqueFd.h"
#include "companions/ctl/listen/LineSource.h"
#include "companions/ctl/recording/InputRecorder.h"
#include "env/HalvekEnv.h"
#include "kelto/interfaces/IAlarmV3Provider.h"
#include "kelto/interfaces/IMotionStateProvider.h"
#include "kelto/msgbus/MessageDelegate.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace kelto::halvek::ctl {

/**
 * What the camera says on the message bus, as lines of a recording: changes of alarm inputs, analytics alerts, and
 * whether the head rests. It is heard by the daemon's own code, on threads of that; the lines are made on the thread
 * that takes them. Beyond its room what comes last is dropped and counted.
 */
class CameraSignals : public LineSource {
public:
    /** So many wait at most. */
    static constexpr size_t mostWaiting = 4096;

    /**
     * Subscribes; returns when the bus has acknowledged that, after a second at most.
     *
     * @param lineMaker not owned, must outlive this object
     */
    explicit CameraSignals(InputRecorder& lineMaker);
    ~CameraSignals() override;

    int Descriptor() const override { return arrived.Get(); }
    std::string Take() override;

    /**
     * Whether the head rests now: 0 if it does. Asked as the daemon's user if root asks, since the bus may let nobody
     * else. Nothing if the camera cannot say, or the bus does not let us ask; then it is told why on standard error.
     *
     * @throws Failure if there is no bus
     */
    static std::optional<int32_t> AskIdleState();

private:
    void TakeAlarm(interfaces::IAlarmV3Provider::StateChangeEventArgs change);
    void TakeIdleState(int32_t state);
    void TakeAlert(const msgbus::MsgBusMsg& message);
    void Put(CameraSignal signal);

    InputRecorder& recorder;
    const companion::UniqueFd arrived;
    std::mutex mutex;
    // Guarded by mutex.
    std::vector<CameraSignal> waiting;
    uint64_t dropped = 0;

    // Last: they are the first to go, and call no more then.
    HalvekEnv env;
    std::unique_ptr<interfaces::IAlarmV3Provider> alarms;
    std::unique_ptr<interfaces::IMotionStateProvider> head;
    msgbus::MessageDelegate<CameraSignals> alerts;
};

}  // namespace kelto::halvek::ctl
