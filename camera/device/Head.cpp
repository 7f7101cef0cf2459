#include "camera/device/Head.h"

#include "camera/runtime/EventLoop.h"
#include "camera/runtime/Output.h"
#include "camera/runtime/Refusal.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <utility>

namespace kelto::vcam {

namespace {

constexpr int presetCount = 10;
constexpr double degreesPerPreset = 10;
constexpr double degreesPerSecond = 100;
constexpr double secondsToSpeedUp = 0.3;
constexpr uint64_t pauseAtStop = 500'000;  // microseconds
constexpr double microseconds = 1e6;
constexpr double leastSpeed = 0.01;

constexpr int32_t atRest = 0;
constexpr int32_t moving = 1;

int FindPreset(const std::string& id) {
    for (int preset = 1; preset <= presetCount; ++preset) {
        if (id == std::to_string(preset)) {
            return preset;
        }
    }
    throw Refusal("UnknownPreset", "There is no preset \"" + id + R"(", only "1" to "10")");
}

const std::deque<int>& FindTour(const std::string& id) {
    static const std::map<std::string, std::deque<int>> tours = {
        {"1", {1, 2, 3}}, {"2", {4, 5, 6, 7}}, {"3", {8, 10, 9}}};
    const auto found = tours.find(id);
    if (found == tours.end()) {
        throw Refusal("UnknownTour", "There is no tour \"" + id + R"(", only "1" to "3")");
    }
    return found->second;
}

double PositionOf(int preset) {
    return preset * degreesPerPreset;
}

}  // namespace

Head::Head(EventLoop& eventLoop, IdleListener idleChanged)
    : loop(eventLoop), listener(std::move(idleChanged)), timer(loop) {}

void Head::GoTo(const std::string& preset, double speed, int32_t level) {
    const int wanted = FindPreset(preset);
    if (!(speed >= leastSpeed && speed <= 1)) {
        throw Refusal("InvalidValue", "The speed is not between 0.01 and 1");
    }
    if (IsAt(preset)) {
        Say("head stays at preset %d (level %d)", wanted, level);
        return;
    }
    Say("head sets off to preset %d (speed %g, level %d)", wanted, speed, level);
    Travel({wanted}, speed);
}

void Head::StartTour(const std::string& tour, int32_t level) {
    const std::deque<int>& stops = FindTour(tour);
    Say("head sets off on tour %s (level %d)", tour.c_str(), level);
    Travel(stops, 1);
}

bool Head::IsAt(const std::string& preset) const {
    return PositionOf(FindPreset(preset)) == to && route.empty();
}

void Head::SetIdleState(int32_t state) {
    idleState = state;
    Say("idle state %d", state);
    listener(state);
}

double Head::GetPosition() const {
    const uint64_t now = EventLoop::Now();
    if (now >= end) {
        return to;
    }
    const double part = static_cast<double>(now - start) / static_cast<double>(end - start);
    return from + (to - from) * part;
}

uint64_t Head::GetTimeToTarget() const {
    const uint64_t now = EventLoop::Now();
    return now >= end ? 0 : end - now;
}

void Head::Travel(std::deque<int> stops, double speed) {
    const bool wasAtRest = route.empty();
    route = std::move(stops);
    travelSpeed = speed;
    MoveOn();
    if (wasAtRest) {
        SetIdleState(moving);
    }
}

void Head::MoveOn() {
    from = GetPosition();
    to = PositionOf(route.front());
    start = EventLoop::Now();
    const double seconds = secondsToSpeedUp + std::abs(to - from) / degreesPerSecond / travelSpeed;
    end = start + static_cast<uint64_t>(seconds * microseconds);
    timer.StartAt(end, [this] { Arrive(); });
}

void Head::Arrive() {
    const int preset = route.front();
    route.pop_front();
    if (route.empty()) {
        Say("head comes to rest at preset %d", preset);
        SetIdleState(atRest);
    } else {
        Say("head stops over at preset %d", preset);
        timer.StartAt(EventLoop::Now() + pauseAtStop, [this] { MoveOn(); });
    }
}

}  // namespace kelto::vcam
