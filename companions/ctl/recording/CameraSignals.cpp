#include "companions/ctl/recording/CameraSignals.h"

#include "companions/common/ClockState.h"
#include "companions/ctl/Failure.h"
#include "companions/ctl/Terminal.h"
#include "companions/ctl/live/DaemonProcess.h"
#include "companions/ctl/model/ChildProcess.h"
#include "kelto/core/StringUtil.h"
#include "kelto/core/VoidObjectMethodDelegate1.h"
#include "kelto/interfaces/AnalyticsInterface.h"
#include "kelto/osa/Exception.h"
#include "source/AnalyticsAlertConversion.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <optional>
#include <utility>

namespace kelto::halvek::ctl {

namespace {

using companion::ClockState;
using StateChange = interfaces::IAlarmV3Provider::StateChangeEventArgs;

/** How the platform begins when there is nobody to talk to at all. */
constexpr const char* withoutBus = "Cannot open the message bus";
constexpr char known = '=';

/** As far as that is possible: otherwise the bus decides whether we may ask. */
void BecomeDaemonsUser(const std::optional<DaemonProcess>& daemon) {
    if (geteuid() == 0 && daemon && daemon->uid != 0 && setresgid(daemon->uid, daemon->uid, daemon->uid) == 0) {
        static_cast<void>(!setresuid(daemon->uid, daemon->uid, daemon->uid));
    }
}

/** "=0" and the like, or why it is not known. */
std::string AskNow(const std::optional<DaemonProcess>& daemon) {
    BecomeDaemonsUser(daemon);
    try {
        HalvekEnv env;
        return known + std::to_string(interfaces::IMotionStateProvider::CreateClient(env.GetMsgBus())->GetIdleState());
    } catch (const osa::Exception& exception) {
        return exception.what();
    }
}

}  // namespace

CameraSignals::CameraSignals(InputRecorder& lineMaker)
    : recorder(lineMaker),
      arrived(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      alarms(interfaces::IAlarmV3Provider::CreateClient(env.GetMsgBus())),
      head(interfaces::IMotionStateProvider::CreateClient(env.GetMsgBus())),
      alerts(env.GetMsgBus(), source::alertName, source::alertDomain, this, &CameraSignals::TakeAlert) {
    using AlarmDelegate = core::VoidObjectMethodDelegate1<CameraSignals, StateChange>;
    using IdleDelegate = core::VoidObjectMethodDelegate1<CameraSignals, int32_t>;
    alarms->OnStateChange().Add(std::make_unique<AlarmDelegate>(this, &CameraSignals::TakeAlarm));
    head->OnIdleChange().Add(std::make_unique<IdleDelegate>(this, &CameraSignals::TakeIdleState));
    env.StartMsgBus();
}

CameraSignals::~CameraSignals() {
    alarms->OnStateChange().Remove(this);
    head->OnIdleChange().Remove(this);
}

std::string CameraSignals::Take() {
    uint64_t count = 0;
    static_cast<void>(!read(arrived.Get(), &count, sizeof(count)));
    std::vector<CameraSignal> taken;
    uint64_t missing = 0;
    {
        const std::lock_guard lock(mutex);
        taken.swap(waiting);
        missing = std::exchange(dropped, 0);
    }
    std::string lines;
    for (const CameraSignal& signal : taken) {
        lines += recorder.Of(signal);
    }
    return missing == 0 ? lines : lines + recorder.Gap(missing);
}

std::optional<int32_t> CameraSignals::AskIdleState() {
    const std::optional<DaemonProcess> daemon = DaemonProcess::Find();
    const std::string answer = ChildProcess::Run([&] { return AskNow(daemon); });
    if (answer.starts_with(withoutBus)) {
        throw Failure("there is no message bus: " + answer);
    }
    int32_t state = 0;
    if (answer.starts_with(known) && core::StringUtil::TryParse(answer.substr(1), state)) {
        return state;
    }
    Terminal::Complain("whether the head rests is not known before it moves: " + Terminal::Escape(answer));
    return std::nullopt;
}

void CameraSignals::TakeAlarm(StateChange change) {
    Put({.kind = "alarm",
         .type = "Alarm",
         .properties = {{"alarmBank", change.bankName},
                        {"alarmIndex", std::to_string(change.index)},
                        {"alarmState", change.active ? "1" : "0"}}});
}

void CameraSignals::TakeIdleState(int32_t state) {
    Put({.kind = "idle", .state = state});
}

/** One that the daemon's sources give up is none. */
void CameraSignals::TakeAlert(const msgbus::MsgBusMsg& message) {
    const auto properties = source::AlertToFittingProperties(interfaces::AnalyticsInterface::AnalyticsAlert(message));
    if (properties) {
        Put({.kind = "alert", .type = source::alertName, .properties = {properties->begin(), properties->end()}});
    }
}

void CameraSignals::Put(CameraSignal signal) {
    signal.time = {.milliseconds = ClockState::Now(), .sinceBoot = ClockState::SinceBoot()};
    {
        const std::lock_guard lock(mutex);
        if (waiting.size() < mostWaiting) {
            waiting.push_back(std::move(signal));
        } else {
            ++dropped;
        }
    }
    const uint64_t one = 1;
    static_cast<void>(!write(arrived.Get(), &one, sizeof(one)));
}

}  // namespace kelto::halvek::ctl
