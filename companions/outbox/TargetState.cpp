#include "companions/outbox/TargetState.h"

#include <algorithm>
#include <utility>

namespace kelto::halvek::outbox {

namespace {

// In milliseconds.
constexpr int64_t firstDelay = 5'000;
constexpr int64_t longestDelay = int64_t{15} * 60'000;
constexpr int64_t delayFactor = 3;
constexpr int64_t clockDelay = 30'000;
constexpr int64_t holdDelay = int64_t{60} * 60'000;

}  // namespace

void TargetState::Succeeded() {
    kind = Kind::Ok;
    nextTry = 0;
    delay = 0;
    reason.clear();
}

void TargetState::Failed(int64_t now, std::string why) {
    kind = Kind::Wait;
    delay = std::clamp(delay * delayFactor, firstDelay, longestDelay);
    // Cameras that have lost one server together must not come back together.
    nextTry = now + std::uniform_int_distribution<int64_t>(delay * 3 / 4, delay * 5 / 4)(random);
    reason = std::move(why);
}

void TargetState::AwaitClock(int64_t now, std::string why) {
    kind = Kind::Wait;
    nextTry = now + clockDelay;
    reason = std::move(why);
}

void TargetState::Held(int64_t now, std::string why) {
    kind = Kind::Hold;
    nextTry = now + holdDelay;
    reason = std::move(why);
}

void TargetState::Resume(std::string why) {
    kind = Kind::Wait;
    nextTry = 0;
    reason = std::move(why);
}

void TargetState::Probe() {
    if (kind != Kind::Hold) {
        nextTry = 0;
    }
}

void TargetState::ProbeAnyway() {
    nextTry = 0;
}

const char* TargetState::Word() const {
    switch (kind) {
        case Kind::Ok:
            return "ok";
        case Kind::Wait:
            return "wait";
        default:
            return "hold";
    }
}

}  // namespace kelto::halvek::outbox
