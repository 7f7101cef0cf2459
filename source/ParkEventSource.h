#pragma once

#include "env/SettingsKeys.h"
#include "kelto/osa/Runnable.h"
#include "source/EventSource.h"
#include "source/ListeningThread.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace kelto::core {
class Logger;
}

namespace kelto::halvek {
class HalvekEnv;
class MotionStateCommon;
}  // namespace kelto::halvek

namespace kelto::halvek::source {

/**
 * Fires a ParkEvent when the head has been at rest for the dwell time; once until it has moved, or come to rest, again.
 *
 * The motion-state provider arms and disarms it on a delivery thread; a thread of its own counts seconds and runs the
 * handlers. Whatever a handler throws ends that thread, and with it the source.
 */
class ParkEventSource : public EventSource, public osa::Runnable {
public:
    static constexpr SettingsKeys keys{
        IntegerKey{.name = "DwellTime.sec", .absent = 10, .lowest = 0, .defaultIfUnreadable = true, .unit = "s"}};

    /**
     * Subscribes to the provider.
     *
     * @param typeName becomes the events' "eventType"
     * @throws kelto::osa::Exception if there is no environment
     */
    ParkEventSource(const std::string& typeName, HalvekEnv* env);

    /**
     * Reads "DwellTime.sec", by default 10, and asks the provider whether the head is at rest now, 5 s at most; a
     * provider that does not answer is a Warning.
     */
    void Configure(const core::IniFile::Group& group) override;
    bool IsConfigured() const override;
    /** Unsubscribes and stops; a delivery in progress is waited for. */
    ~ParkEventSource() override;

    /** Returns when the thread ticks. */
    void StartListening() override;
    /** Cuts a sleep short, waits for a delivery in progress. The subscription stays. */
    void StopListening() override;
    std::string ToString() const override;

    void Run() override;
    void Stop() override;

private:
    void HandleIdleStateChange(int32_t state);
    void Tick();

    std::atomic<bool> running = false;
    std::atomic<bool> armed = false;
    std::atomic<uint32_t> dwellSeconds = 10;
    std::atomic<uint32_t> idleSeconds = 0;
    core::Logger& logger;
    MotionStateCommon* const motionState;
    const std::string typeName;
    ListeningThread thread;
};

}  // namespace kelto::halvek::source
