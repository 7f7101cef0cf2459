#pragma once

#include "camera/runtime/Timer.h"
#include "companions/common/EventReader.h"
#include "companions/common/ListenerPipe.h"

#include <systemd/sd-event.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kelto::vcam {
class EventLoop;
}

namespace kelto::page {

/**
 * Hears of every event of the monitor, by an output pipe of its own. The pipe is read whenever something is in it: one
 * that fills up costs the monitor a descriptor an event. One thread.
 */
class EventFeed {
public:
    /** @param pipePath FOLDER/NAME.halvek.any */
    EventFeed(vcam::EventLoop& eventLoop, const std::string& pipePath, companion::EventReader::Taker taker);
    EventFeed(const EventFeed&) = delete;
    EventFeed& operator=(const EventFeed&) = delete;

    /** Makes the pipe, if there is none: without the monitor its folder may be missing. */
    void OpenIfClosed();
    bool IsOpen() const { return pipe.has_value(); }
    /** Why there is no pipe. */
    const std::string& Problem() const { return problem; }

private:
    struct Unref {
        void operator()(sd_event_source* added) const { sd_event_source_disable_unref(added); }
    };

    static int OnReadable(sd_event_source*, int descriptor, uint32_t events, void* self);
    void Read();
    void AwaitEnd();

    vcam::EventLoop& loop;
    const std::string path;
    companion::EventReader reader;
    vcam::Timer timer;
    std::string problem;
    std::optional<companion::ListenerPipe> pipe;
    std::unique_ptr<sd_event_source, Unref> source;
};

}  // namespace kelto::page
