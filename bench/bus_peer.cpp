// What the way from an alarm to a relay costs at the least: the peer that the daemon is measured against on the bus.
//
//   bus_peer RELAY one|two
//
// A bare program of libsystemd's, one thread on one connection: for each signal StateChanged of the object
// /com/kelto/AlarmV3/peerRELAY it calls Activate of the relay service ("one"), or GetConfiguration and then, when that
// is answered, Activate ("two"), as the daemon does for a relay without settings of its own. It decides nothing and
// looks at nothing but what it needs for the next call.

#include <systemd/sd-bus.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr const char* relayService = "com.kelto.RelayV3";
constexpr const char* relayObject = "/com/kelto/RelayV3";

int relay = 0;
bool asksFirst = false;

int Check(int result, const char* what) {
    if (result < 0) {
        std::fprintf(stderr, "bus_peer: %s: %s\n", what, std::strerror(-result));
        std::exit(1);
    }
    return result;
}

sd_bus_message* Call(sd_bus* bus, const char* method, const char* types, auto... arguments) {
    sd_bus_message* reply = nullptr;
    const int result =
        sd_bus_call_method(bus, relayService, relayObject, relayService, method, nullptr, &reply, types, arguments...);
    Check(result, method);
    return reply;
}

int OnAlarm(sd_bus_message* signal, void*, sd_bus_error*) {
    sd_bus* const bus = sd_bus_message_get_bus(signal);
    int mode = 3;
    if (asksFirst) {
        sd_bus_message* const reply = Call(bus, "GetConfiguration", "si", "Local", relay);
        Check(sd_bus_message_read(reply, "bbi", nullptr, nullptr, &mode), "GetConfiguration");
        sd_bus_message_unref(reply);
    }
    sd_bus_message_unref(Call(bus, "Activate", "sii", "Local", relay, mode));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("usage: bus_peer RELAY one|two\n", stderr);
        return 2;
    }
    relay = std::atoi(argv[1]);
    asksFirst = std::strcmp(argv[2], "two") == 0;
    const std::string path = std::string("/com/kelto/AlarmV3/peer") + argv[1];
    sd_bus* bus = nullptr;
    Check(sd_bus_open_system(&bus), "Cannot use the bus");
    Check(sd_bus_match_signal(bus, nullptr, "com.kelto.AlarmV3", path.c_str(), "com.kelto.AlarmV3", "StateChanged",
                              OnAlarm, nullptr),
          "Cannot listen");
    while (true) {
        if (Check(sd_bus_process(bus, nullptr), "The bus is gone") == 0) {
            Check(sd_bus_wait(bus, UINT64_MAX), "The bus is gone");
        }
    }
}
