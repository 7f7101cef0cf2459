#include "companions/page/ActionFollower.h"

#include "camera/runtime/EventLoop.h"
#include "companions/page/CameraBus.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <deque>
#include <utility>

namespace kelto::page {

namespace {

using vcam::EventLoop;

constexpr uint64_t leastInterval = 50'000;  // microseconds
// Asking takes one part of so many of the time at most.
constexpr uint64_t share = 20;

}  // namespace

ActionFollower::ActionFollower(EventLoop& eventLoop, CameraBus& cameraBus, Listener actionListener)
    : camera(cameraBus), listener(std::move(actionListener)), timer(eventLoop) {}

void ActionFollower::Ask() {
    if (isAsking) {
        isAskedAgain = true;
    } else if (!timer.IsStarted()) {
        timer.StartAt(std::max(earliest, EventLoop::Now()), [this] { AskNow(); });
    }
}

void ActionFollower::AskAtOnce(std::function<void()> done) {
    waiting.push_back(std::move(done));
    if (!isAsking) {
        timer.Cancel();
        AskNow();
    }
}

void ActionFollower::AskNow() {
    isAsking = true;
    isAskedAgain = false;
    const uint64_t begin = EventLoop::Now();
    camera.Call(
        "VirtualCamera", "GetActions", [](sd_bus_message*) { return 0; },
        [this, begin](const CameraBus::Result& result) {
            isAsking = false;
            if (result.outcome == CameraBus::Result::Outcome::Done) {
                Take(result.message);
            }
            const uint64_t now = EventLoop::Now();
            earliest = now + std::max(leastInterval, (now - begin) * share);
            if (isAskedAgain) {
                Ask();
            }
            for (const std::function<void()>& done : std::exchange(waiting, {})) {
                done();
            }
        });
}

void ActionFollower::Take(sd_bus_message* answer) {
    std::deque<Action> fresh;
    size_t leftOut = 0;
    size_t atLastTime = 0;
    uint64_t time = 0;
    const char* method = nullptr;
    const char* arguments = nullptr;
    if (sd_bus_message_enter_container(answer, 'a', "(tss)") < 0) {
        return;
    }
    while (sd_bus_message_read(answer, "(tss)", &time, &method, &arguments) > 0) {
        atLastTime += time == lastTime ? 1 : 0;
        if (time < lastTime || (time == lastTime && atLastTime <= countAtLastTime)) {
            continue;
        }
        fresh.push_back({.time = time, .method = method, .arguments = arguments});
        if (fresh.size() > mostAtATime) {
            fresh.pop_front();
            ++leftOut;
        }
    }
    if (fresh.empty()) {
        return;
    }
    const uint64_t newest = fresh.back().time;
    const auto count = static_cast<size_t>(std::ranges::count(fresh, newest, &Action::time));
    countAtLastTime = newest == lastTime ? countAtLastTime + count : count;
    lastTime = newest;
    listener({fresh.begin(), fresh.end()}, leftOut);
}

}  // namespace kelto::page
