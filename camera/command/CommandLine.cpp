#include "camera/command/CommandLine.h"

#include "camera/runtime/Failure.h"

#include <getopt.h>

namespace kelto::vcam {

namespace {

constexpr option options[] = {
    {"snapshot", required_argument, nullptr, 's'},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'v'},
    {nullptr, 0, nullptr, 0},
};

constexpr const char* help = R"(Usage: kelto-vcam [--snapshot PATH]

A camera without hardware: it offers a camera's services on the system bus,
and one more, com.kelto.VirtualCamera, to drive and watch them.

  --snapshot PATH  where it puts a new picture every second
                   (default: /tmp/snapshot/img2.jpg)
  --help           show this and exit
  --version        show the version and exit

On a bus of your own, in one terminal:

  $ export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$HOME/kelto-bus
  $ A="--session --address=$DBUS_SYSTEM_BUS_ADDRESS"
  $ BUS=$(dbus-daemon $A --fork --nopidfile --print-pid)
  $ kelto-vcam

(to end it: Control-C, then "kill $BUS") and in another, where what happens can be seen in the first:

  $ export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$HOME/kelto-bus
  $ C="com.kelto.VirtualCamera /com/kelto/VirtualCamera com.kelto.VirtualCamera"
  $ R="com.kelto.RelayV3 /com/kelto/RelayV3 com.kelto.RelayV3"
  $ P="com.kelto.PresetsV2 /com/kelto/PresetsV2 com.kelto.PresetsV2"
  $ busctl call $C SetAlarm sib Local 2 true
  $ busctl call $R SetConfiguration sibiiii Local 0 false 3 200 100 3
  $ busctl call $R Activate sii Local 0 3
  $ busctl call $P GoTo sdi 7 1.0 900
  $ busctl call $C RaiseAlert 'sssssa(dd)a(dd)ss' cam Human Line Gate '' 1 0 0.5 0 '' ''
  $ busctl call $C SetFault ss RelayV3 slow
  $ busctl --json=pretty call $C GetActions

"busctl introspect com.kelto.VirtualCamera /com/kelto/VirtualCamera" lists what
else there is; the man page kelto-vcam(1) explains it.
)";

}  // namespace

CommandLine::CommandLine(int argc, char** argv) {
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
