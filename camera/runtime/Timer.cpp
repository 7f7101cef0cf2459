#include "camera/runtime/Timer.h"

#include "camera/runtime/EventLoop.h"
#include "camera/runtime/Failure.h"

#include <ctime>
#include <utility>

namespace kelto::vcam {

namespace {

constexpr uint64_t accuracy = 1;  // microsecond; the default of 0 would mean 250 ms

}  // namespace

void Timer::StartAt(uint64_t when, Callback function) {
    sd_event_source* added = nullptr;
    Check(sd_event_add_time(loop.Get(), &added, CLOCK_MONOTONIC, when, accuracy, &Timer::OnTime, this),
          "Cannot start a timer");
    source.reset(added);
    callback = std::move(function);
}

void Timer::Cancel() {
    source.reset();
    callback = nullptr;
}

int Timer::OnTime(sd_event_source*, uint64_t, void* self) {
    // The function may be the last that is heard of the timer, so it is no longer the timer's when it runs.
    const Callback function = std::exchange(static_cast<Timer*>(self)->callback, nullptr);
    function();
    return 0;
}

}  // namespace kelto::vcam
