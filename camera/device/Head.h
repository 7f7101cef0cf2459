#pragma once

#include "camera/runtime/Timer.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <string>

namespace kelto::vcam {

class EventLoop;

/**
 * The head that carries the lens. It turns on one axis: preset N is at N times 10 degrees, and it starts at 0, which is
 * no preset. A move takes 0.3 s and, at speed 1, another second for 100 degrees. It can be sent elsewhere under way.
 */
class Head {
public:
    using IdleListener = std::function<void(int32_t state)>;

    /** @param idleChanged told of each change of the idle state */
    Head(EventLoop& eventLoop, IdleListener idleChanged);

    /** Sets off. Nothing moves if it stands there already. Throws Refusal for an unknown preset or speed. */
    void GoTo(const std::string& preset, double speed, int32_t level);
    /** Sets off for the presets of a tour, once; it is not at rest before the last. Throws Refusal. */
    void StartTour(const std::string& tour, int32_t level);

    /** Whether it is at rest there. Throws Refusal. */
    bool IsAt(const std::string& preset) const;

    /** 0 at rest, 1 moving, or what was set since then. */
    int32_t GetIdleState() const { return idleState; }
    /** Whatever the head does: for those who want to see what a state leads to. */
    void SetIdleState(int32_t state);

    /** Where it is now, in degrees. */
    double GetPosition() const;
    /** Where the move under way ends, or has ended, in degrees. */
    double GetTarget() const { return to; }
    /** How long that move still takes, in microseconds; 0 at rest and at a stop of a tour. */
    uint64_t GetTimeToTarget() const;
    /** The presets that are still to be reached; empty at rest. */
    const std::deque<int>& GetRoute() const { return route; }

private:
    void Travel(std::deque<int> stops, double speed);
    void MoveOn();
    void Arrive();

    EventLoop& loop;
    const IdleListener listener;
    Timer timer;
    int32_t idleState = 0;
    std::deque<int> route;  ///< presets still to be reached; empty at rest
    double travelSpeed = 1;
    double from = 0;  ///< the current move, in degrees and microseconds
    double to = 0;
    uint64_t start = 0;
    uint64_t end = 0;
};

}  // namespace kelto::vcam
