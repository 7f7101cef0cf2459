#pragma once

#include <systemd/sd-event.h>

#include <cstdint>
#include <memory>

namespace kelto::vcam {

/** The one thread's loop: everything in the virtual camera happens in it. SIGINT and SIGTERM end it with status 0. */
class EventLoop {
public:
    /** Blocks SIGINT and SIGTERM, which the loop takes from then on. Throws Failure. */
    EventLoop();

    sd_event* Get() const { return event.get(); }

    /** Runs until it is left; returns the exit status. Throws Failure. */
    int Run();
    /** To be called from within the loop. */
    void Leave(int status);

    /** The monotonic clock in microseconds. */
    static uint64_t Now();

private:
    struct Unref {
        void operator()(sd_event* loop) const { sd_event_unref(loop); }
    };

    std::unique_ptr<sd_event, Unref> event;
};

}  // namespace kelto::vcam
