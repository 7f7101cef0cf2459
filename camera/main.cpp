#include "camera/VirtualCamera.h"
#include "camera/bus/Bus.h"
#include "camera/command/CommandLine.h"
#include "camera/command/Commands.h"
#include "camera/picture/Snapshot.h"
#include "camera/runtime/EventLoop.h"
#include "camera/runtime/Output.h"

#include <systemd/sd-daemon.h>

#include <cstdio>
#include <exception>

namespace {

int RunCamera(const kelto::vcam::CommandLine& commandLine) {
    kelto::vcam::EventLoop loop;
    kelto::vcam::Bus bus(loop);
    kelto::vcam::VirtualCamera camera(bus, loop);
    camera.TakeNames();
    // After the names, so that a second camera leaves the picture of the first alone.
    const kelto::vcam::Snapshot snapshot(loop, camera.GetHead(), commandLine.snapshotPath);
    kelto::vcam::Say("ready, a new picture every second in %s", commandLine.snapshotPath.c_str());
    sd_notify(0, "READY=1");
    return loop.Run();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const kelto::vcam::CommandLine commandLine(argc, argv);
        switch (commandLine.wish) {
            case kelto::vcam::CommandLine::Wish::Help:
                std::fputs(kelto::vcam::CommandLine::Help(), stdout);
                return 0;
            case kelto::vcam::CommandLine::Wish::Version:
                std::puts("kelto-vcam " KELTO_VCAM_VERSION);
                return 0;
            case kelto::vcam::CommandLine::Wish::Command:
                kelto::vcam::RunCommand(commandLine.command);
                return 0;
            case kelto::vcam::CommandLine::Wish::Run:
                return RunCamera(commandLine);
        }
    } catch (const std::exception& exception) {
        kelto::vcam::Complain("%s", exception.what());
    }
    return 1;
}
