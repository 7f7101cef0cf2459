#include "source/ParkEventSource.h"

#include "env/MotionStateCommon.h"
#include "env/SettingsReader.h"
#include "event/ParkEvent.h"
#include "kelto/core/Logger.h"
#include "kelto/core/VoidObjectMethodDelegate1.h"
#include "kelto/osa/Exception.h"
#include "kelto/osa/Signal.h"
#include "kelto/osa/Thread.h"

#include <csignal>
#include <memory>

namespace kelto::halvek::source {

namespace {

constexpr int32_t tickMs = 1000;
constexpr int32_t atRest = 0;

}  // namespace

ParkEventSource::ParkEventSource(const std::string& sourceType, HalvekEnv* env)
    : logger(core::Logger::GetLogger("ParkEventSource")),
      motionState(MotionStateCommon::GetInstance(env)),
      typeName(sourceType) {
    using Delegate = core::VoidObjectMethodDelegate1<ParkEventSource, int32_t>;
    motionState->GetClient()->OnIdleChange().Add(
        std::make_unique<Delegate>(this, &ParkEventSource::HandleIdleStateChange));
}

ParkEventSource::~ParkEventSource() {
    motionState->GetClient()->OnIdleChange().Remove(this);
    ParkEventSource::StopListening();
}

void ParkEventSource::Configure(const core::IniFile::Group& group) {
    EventSource::Configure(group);
    int32_t dwell = 0;
    if (!SettingsReader(group).TryRead(keys.Integer("DwellTime.sec"), dwell)) {
        logger.Debug("\tCan't find Park::DwellTime.sec, using default!");
    }
    dwellSeconds = static_cast<uint32_t>(dwell);
    logger.Information("\tPark DwellTime: %d", dwell);
    int32_t state = 0;
    try {
        state = motionState->GetClient()->GetIdleState();
    } catch (...) {
        logger.Warning("Failed when querying current idle state.");
        return;
    }
    HandleIdleStateChange(state);
}

bool ParkEventSource::IsConfigured() const {
    return true;
}

void ParkEventSource::HandleIdleStateChange(int32_t state) {
    logger.Debug("ParkEventSource::HandleIdleStateChange %d", state);
    if (state == atRest) {
        idleSeconds = 0;
        armed = true;
    } else {
        armed = false;
    }
}

void ParkEventSource::StartListening() {
    thread.Start("ParkEventSource", *this);
    logger.Information("ParkEventSource started");
}

void ParkEventSource::StopListening() {
    ParkEventSource::Stop();
    thread.Finish();
    logger.Information("ParkEventSource stopped");
}

std::string ParkEventSource::ToString() const {
    return "EventSource{Park}";
}

void ParkEventSource::Run() {
    const ListeningThread::LatchOpener opener(thread);
    logger.Debug("ParkEventSource::Run");
    running = true;
    thread.OpenLatch();
    while (running) {
        try {
            Tick();
        } catch (const osa::Signal& signal) {
            logger.Debug("%s", signal.what());
            running = false;
        } catch (const osa::Exception& exception) {
            logger.Error("%s", exception.what());
            running = false;
        }
    }
    logger.Debug("DONE");
}

void ParkEventSource::Tick() {
    if (armed && idleSeconds >= dwellSeconds) {
        armed = false;
        event::ParkEvent event({{"eventType", typeName}});
        FireEvent(event);
        logger.Debug("fired");
    }
    ++idleSeconds;
    if (running) {
        osa::Thread::CurrentThread::Sleep(tickMs);
    }
}

void ParkEventSource::Stop() {
    logger.Debug("ParkEventSource::Stop()");
    if (!running) {
        return;
    }
    running = false;
    if (osa::Thread* const current = GetCurrentThread()) {
        current->Signal(SIGALRM);
    }
}

}  // namespace kelto::halvek::source
