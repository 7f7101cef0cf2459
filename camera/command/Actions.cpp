#include "camera/command/Actions.h"

#include "camera/command/CameraClient.h"
#include "camera/command/OneLine.h"
#include "camera/runtime/EventLoop.h"
#include "camera/runtime/LocalTime.h"

#include <cerrno>
#include <cstdio>
#include <ctime>

namespace kelto::vcam {

namespace {

constexpr uint64_t second = 1'000'000;  // microseconds

/** What has to be added to the monotonic clock for the time of day, in microseconds. */
uint64_t ClockDifference() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * second + static_cast<uint64_t>(now.tv_nsec) / 1'000 - EventLoop::Now();
}

std::string TimeOfDay(uint64_t microseconds) {
    timespec time{};
    time.tv_sec = static_cast<time_t>(microseconds / second);
    time.tv_nsec = static_cast<decltype(time.tv_nsec)>(microseconds % second * 1'000);
    return FormatLocalTime(time);
}

void Print(sd_bus_message* actions) {
    constexpr const char* unreadable = "Cannot read the camera's answer";
    const uint64_t difference = ClockDifference();
    uint64_t time = 0;
    const char* method = nullptr;
    const char* arguments = nullptr;
    Check(sd_bus_message_enter_container(actions, 'a', "(tss)"), unreadable);
    while (Check(sd_bus_message_read(actions, "(tss)", &time, &method, &arguments), unreadable) > 0) {
        std::printf("%s %s(%s)\n", TimeOfDay(time + difference).c_str(), OneLine(method).c_str(),
                    OneLine(arguments).c_str());
    }
    if (std::fflush(stdout) != 0) {
        Check(-errno, "Cannot print the actions");
    }
}

}  // namespace

void ShowActions(Words& words) {
    const bool forget = words.TakeFlag("--clear");
    words.ExpectNoMore();
    CameraClient camera;
    if (forget) {
        camera.Call("ClearActions", "");
    } else {
        Print(camera.Call("GetActions", "").get());
    }
}

}  // namespace kelto::vcam
