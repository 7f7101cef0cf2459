#pragma once

#include "camera/runtime/Timer.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct sd_bus_message;

namespace kelto::vcam {
class EventLoop;
}

namespace kelto::page {

class CameraBus;

/**
 * Follows what the camera's services were asked to do. The camera tells it only when it is asked, and all of it, which
 * may be 100,000 calls: so it is asked the less often the longer the answer takes. One thread.
 */
class ActionFollower {
public:
    struct Action {
        uint64_t time;  ///< microseconds on the monotonic clock
        std::string method;
        std::string arguments;
    };
    /** @param leftOut how many came before these since the last time, and are too many to be told */
    using Listener = std::function<void(const std::vector<Action>& actions, size_t leftOut)>;

    static constexpr size_t mostAtATime = 200;

    ActionFollower(vcam::EventLoop& eventLoop, CameraBus& cameraBus, Listener actionListener);

    /** Asks soon; whatever is asked for until then needs no more. */
    void Ask();
    /** Asks now, unless it is doing so, and calls back when the listener has been told, or the camera is away. */
    void AskAtOnce(std::function<void()> done);

private:
    void AskNow();
    void Take(sd_bus_message* answer);

    CameraBus& camera;
    const Listener listener;
    vcam::Timer timer;
    std::vector<std::function<void()>> waiting;
    bool isAsking = false;
    bool isAskedAgain = false;
    uint64_t earliest = 0;       ///< when it may be asked again
    uint64_t lastTime = 0;       ///< of the last action that was told
    size_t countAtLastTime = 0;  ///< how many at that time were told
};

}  // namespace kelto::page
