#include "companions/page/Options.h"

#include <getopt.h>

#include <charconv>
#include <string_view>

namespace kelto::page {

namespace {

constexpr option options[] = {
    {"port", required_argument, nullptr, 'p'},      {"bind", required_argument, nullptr, 'b'},
    {"host", required_argument, nullptr, 'n'},      {"events", required_argument, nullptr, 'e'},
    {"snapshot", required_argument, nullptr, 's'},  {"settings", required_argument, nullptr, 'i'},
    {"halvekctl", required_argument, nullptr, 'c'}, {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'v'},         {nullptr, 0, nullptr, 0},
};

constexpr const char* help = R"(Usage: kelto-vcam-page [--port NUMBER] [--bind ADDRESS] [--events PIPE]

Serves the page on which a person plays camera: it drives the virtual camera
that is on the bus, and shows what the event monitor makes of it.

Options:
  --port NUMBER    where to listen (default: 8077; 0: any that is free)
  --bind ADDRESS   at which address (default: 127.0.0.1, this machine only)
  --host NAME      a name that browsers may call this machine by, besides
                   localhost, 127.0.0.1 and [::1]; may be repeated
  --events PIPE    NAME.halvek.any: the pipe to make, to hear of events by
                   (default: /var/run/halvek/zz-page.halvek.any);
                   any other: the event pipe to post to
                   (default: /var/run/halvek.pipe)
  --snapshot PATH  the camera's picture (default: /tmp/snapshot/img2.jpg)
  --settings PATH  the monitor's settings (default: those that halvekctl finds)
  --halvekctl PROGRAM
                   what draws the wiring and explains events
                   (default: halvekctl, which need not be there)
  --help, --version

A socket of the service manager takes the place of port and address.
)";

constexpr std::string_view listenerEnd = ".halvek.any";

uint16_t PortOf(std::string_view text) {
    uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.begin(), text.end(), port);
    if (error != std::errc() || end != text.end()) {
        throw UsageError("\"" + std::string(text) + "\" is no port: it is a number from 0 to 65535");
    }
    return port;
}

std::string NotEmpty(const char* what, const std::string& value) {
    if (value.empty()) {
        throw UsageError(std::string(what) + " is empty");
    }
    return value;
}

}  // namespace

Options::Options(int argc, char** argv) {
    int result = 0;
    while ((result = getopt_long(argc, argv, "", options, nullptr)) != -1) {
        switch (result) {
            case 'p':
                port = PortOf(optarg);
                break;
            case 'b':
                address = NotEmpty("The address", optarg);
                break;
            case 'n':
                hosts.push_back(NotEmpty("The name", optarg));
                break;
            case 'e':
                TakePipe(optarg);
                break;
            case 's':
                snapshot = NotEmpty("The path of the picture", optarg);
                break;
            case 'i':
                settings = NotEmpty("The path of the settings", optarg);
                break;
            case 'c':
                halvekctl = NotEmpty("The program", optarg);
                break;
            case 'h':
                wish = Wish::Help;
                return;
            case 'v':
                wish = Wish::Version;
                return;
            default:  // getopt_long has said what is wrong
                throw UsageError("try --help");
        }
    }
    if (optind < argc) {
        throw UsageError(std::string("there is nothing to be done with \"") + argv[optind] + "\"; try --help");
    }
}

const char* Options::Help() {
    return help;
}

void Options::TakePipe(const std::string& path) {
    if (!path.starts_with('/')) {
        throw UsageError("\"" + path + "\" is no pipe: its path begins with /");
    }
    const std::string name = path.substr(path.rfind('/') + 1);
    if (name.empty() || name == listenerEnd) {
        throw UsageError("\"" + path + "\" is no pipe: it has no name");
    }
    (name.ends_with(listenerEnd) ? listenerPipe : eventPipe) = path;
}

}  // namespace kelto::page
