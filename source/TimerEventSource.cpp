#include "source/TimerEventSource.h"

#include "env/SettingsReader.h"
#include "event/TimerEvent.h"
#include "kelto/core/Logger.h"
#include "kelto/core/Stopwatch.h"
#include "kelto/osa/Exception.h"
#include "kelto/osa/Signal.h"
#include "kelto/osa/Thread.h"

#include <algorithm>
#include <csignal>
#include <limits>

namespace kelto::halvek::source {

namespace {

core::Logger& Log() {
    return core::Logger::GetLogger("halvek");
}

/** Truncates toward zero; what does not fit becomes the nearest value that does. */
int32_t ToInt32(double value) {
    constexpr double smallest = std::numeric_limits<int32_t>::min();
    constexpr double largest = std::numeric_limits<int32_t>::max();
    return static_cast<int32_t>(std::clamp(value, smallest, largest));
}

/** What is left of the period in milliseconds; below 1 if nothing is left. The seconds are of single precision. */
int32_t NextTickMs(uint32_t intervalSec, double elapsedSec) {
    return ToInt32((static_cast<float>(intervalSec) - static_cast<float>(elapsedSec)) * 1000.0);
}

}  // namespace

TimerEventSource::TimerEventSource(const std::string& typeName) : name(typeName) {}

TimerEventSource::~TimerEventSource() {
    if (GetCurrentThread() != nullptr) {
        TimerEventSource::Stop();
        thread.Finish();
    }
}

void TimerEventSource::Configure(const core::IniFile::Group& group) {
    EventSource::Configure(group);
    int32_t interval = 0;
    if (!SettingsReader(group).TryRead(keys.Integer("Interval.sec"), interval)) {
        Log().Debug("\tCan't find Timer::Interval.sec, using default!");
    }
    intervalSec = static_cast<uint32_t>(interval);
    Log().Information("\tTimer Interval: %d", interval);
}

bool TimerEventSource::IsConfigured() const {
    return true;
}

void TimerEventSource::StartListening() {
    if (!IsConfigured()) {
        throw osa::Exception("TimerEventSource::StartListening not configured");
    }
    if (GetCurrentThread() != nullptr) {
        throw osa::Exception("TimerEventSource::StartListening already running");
    }
    thread.Start("TimerEventSource", *this);
    Log().Information("TimerEventSource started");
}

void TimerEventSource::StopListening() {
    Stop();
    thread.Finish();
    Log().Information("TimerEventSource stopped");
}

std::string TimerEventSource::ToString() const {
    return "EventSource{Timer}";
}

void TimerEventSource::Run() {
    const ListeningThread::LatchOpener opener(thread);
    core::Stopwatch stopwatch(false);
    running = true;
    thread.OpenLatch();
    while (running) {
        try {
            Tick(stopwatch);
        } catch (const osa::Signal& signal) {
            Log().Debug("%s", signal.what());
            running = false;
        } catch (const osa::Exception& exception) {
            Log().Error("%s", exception.what());
        }
    }
    Log().Debug("DONE");
}

void TimerEventSource::Tick(core::Stopwatch& stopwatch) {
    const core::Logger& logger = Log();
    logger.Debug("TICK: %d sec", static_cast<int>(intervalSec));
    stopwatch.Start();
    logger.Debug("firing");
    event::TimerEvent event({{"eventType", name}});
    FireEvent(event);
    logger.Debug("fired");
    stopwatch.Stop();

    const int32_t nextTickMs = NextTickMs(intervalSec, stopwatch.GetSeconds());
    logger.Debug("next tick: %d ms", nextTickMs);
    if (running && nextTickMs >= 1) {
        stopwatch.Start();
        osa::Thread::CurrentThread::Sleep(nextTickMs);
        stopwatch.Stop();
        logger.Debug("sleep took %f sec", stopwatch.GetSeconds());
    }
}

void TimerEventSource::Stop() {
    Log().Debug("TimerEventSource::Stop()");
    running = false;
    if (osa::Thread* const current = GetCurrentThread()) {
        current->Signal(SIGALRM);
    }
}

}  // namespace kelto::halvek::source
