#pragma once

#include <systemd/sd-event.h>

#include <cstdint>
#include <functional>
#include <memory>

namespace kelto::vcam {

class EventLoop;

/** Calls a function once, at a given time, from the event loop. Its destructor cancels. */
class Timer {
public:
    using Callback = std::function<void()>;

    explicit Timer(EventLoop& eventLoop) : loop(eventLoop) {}
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    /**
     * Replaces what it was started for before. The function may start, cancel or destroy this timer; it must not throw.
     *
     * @param when as EventLoop::Now; a time in the past is as good as now
     */
    void StartAt(uint64_t when, Callback function);
    void Cancel();
    /** Whether the function is still to be called. */
    bool IsStarted() const { return callback != nullptr; }

private:
    struct Unref {
        void operator()(sd_event_source* timeSource) const { sd_event_source_disable_unref(timeSource); }
    };

    static int OnTime(sd_event_source* timeSource, uint64_t when, void* self);

    EventLoop& loop;
    Callback callback;
    std::unique_ptr<sd_event_source, Unref> source;
};

}  // namespace kelto::vcam
