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
class Stopwatch;
}  // namespace kelto::core

namespace kelto::halvek::source {

/**
 * Fires a TimerEvent a period, on a thread of its own, so that ticks stand one period apart from start to start as long
 * as the handlers take less. Handlers run on that thread. The period is that of the last Configure, 10 s before it.
 */
class TimerEventSource : public EventSource, public osa::Runnable {
public:
    static constexpr SettingsKeys keys{IntegerKey{.name = "Interval.sec",
                                                  .absent = 10,
                                                  .lowest = 1,
                                                  .highest = 2147483,
                                                  .defaultIfUnreadable = true,
                                                  .unit = "s"}};

    /** @param typeName becomes the events' "eventType" */
    explicit TimerEventSource(const std::string& typeName);

    /** Reads "Interval.sec"; what is absent or no integer becomes 10. The range is not checked. */
    void Configure(const core::IniFile::Group& group) override;
    bool IsConfigured() const override;
    /** Stops if it is still listening. */
    ~TimerEventSource() override;

    /** Returns when the thread ticks. Throws kelto::osa::Exception if there is a thread already. */
    void StartListening() override;
    /** Cuts a sleep short, waits for a delivery in progress. */
    void StopListening() override;
    std::string ToString() const override;

    void Run() override;
    void Stop() override;

private:
    void Tick(core::Stopwatch& stopwatch);

    std::atomic<bool> running = false;
    uint32_t intervalSec = 10;
    const std::string name;
    ListeningThread thread;
};

}  // namespace kelto::halvek::source
