#include "camera/runtime/EventLoop.h"

#include "camera/runtime/Failure.h"

#include <csignal>
#include <ctime>

namespace kelto::vcam {

EventLoop::EventLoop() {
    sd_event* made = nullptr;
    Check(sd_event_new(&made), "Cannot make an event loop");
    event.reset(made);

    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM}) {
        sigaddset(&signals, signal);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    for (const int signal : {SIGINT, SIGTERM}) {
        // Without a function of ours the loop is left with the status that stands for the user data: 0.
        Check(sd_event_add_signal(event.get(), nullptr, signal, nullptr, nullptr), "Cannot listen to signals");
    }
}

int EventLoop::Run() {
    return Check(sd_event_loop(event.get()), "The event loop has failed");
}

void EventLoop::Leave(int status) {
    sd_event_exit(event.get(), status);
}

uint64_t EventLoop::Now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec) / 1'000;
}

}  // namespace kelto::vcam
