#include "camera/command/CommandLine.h"

#include "camera/runtime/Failure.h"

#include <getopt.h>

#include <algorithm>

namespace kelto::vcam {

namespace {

constexpr option options[] = {
    {"snapshot", required_argument, nullptr, 's'},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'v'},
    {nullptr, 0, nullptr, 0},
};

constexpr const char* help = R"(Usage: kelto-vcam COMMAND            drive the camera that is running
       kelto-vcam [--snapshot PATH]  be the camera, until Control-C

Commands:
  alarm INDEX on|off [--bank BANK]  set an alarm input (of the bank Local)
  alert [--class CLASS] [--source SOURCE] [--type TYPE] [--rule NAME]
        [--description TEXT]        raise an alert of video analytics
  idle STATE                        say that the head rests (0) or moves (1)
  recording A B                     record to the card if A or B is "on"
  fault PROVIDER KIND               fail: error, slow, hang; or work: none
  actions [--clear]                 show what it was asked to do, or forget it
Options:
  --snapshot PATH  a new picture every second (default: /tmp/snapshot/img2.jpg)
  --help, --version

On a bus of your own (the one of the system lets only root do this):
  $ export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$HOME/kelto-bus
  $ dbus-daemon --session --fork --print-pid --address=$DBUS_SYSTEM_BUS_ADDRESS
  $ kelto-vcam
and in another terminal:
  $ export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$HOME/kelto-bus
  $ kelto-vcam alarm 2 on
The man page kelto-vcam(1) explains all of it.
)";

}  // namespace

CommandLine::CommandLine(int argc, char** argv) {
    if (argc > 1 && argv[1][0] != '-') {
        command.assign(argv + 1, argv + argc);
        const bool asksForHelp = std::find(command.begin(), command.end(), "--help") != command.end();
        wish = asksForHelp ? Wish::Help : Wish::Command;
        return;
    }
    int result = 0;
    while ((result = getopt_long(argc, argv, "", options, nullptr)) != -1) {
        switch (result) {
            case 's':
                snapshotPath = optarg;
                break;
            case 'h':
                wish = Wish::Help;
                return;
            case 'v':
                wish = Wish::Version;
                return;
            default:  // getopt_long has said what is wrong
                throw Failure("Try --help");
        }
    }
    if (optind < argc) {
        throw Failure(std::string("There is nothing to be done with \"") + argv[optind] + "\". Try --help");
    }
    if (snapshotPath.empty() || snapshotPath.back() == '/') {
        throw Failure("The snapshot needs a file name. Try --help");
    }
}

const char* CommandLine::Help() {
    return help;
}

}  // namespace kelto::vcam
