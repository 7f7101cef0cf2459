#include "tests/support/PrivateBus.h"

#include "tests/support/BusArguments.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace kelto::test {

namespace {

constexpr const char* addressVariable = "DBUS_SYSTEM_BUS_ADDRESS";

/** The largest message is kept small, so that one that the bus refuses is quickly made. */
constexpr const char* configuration =
    R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:path=@SOCKET@</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
  <limit name="max_message_size">33554432</limit>
</busconfig>
)";

struct Unref {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};

/** A connection for one question to the bus itself, and its answer. */
class Question {
public:
    Question(const char* interface, const char* method) {
        sd_bus* opened = nullptr;
        CheckBus(sd_bus_open_system(&opened), "open the bus");
        bus.reset(opened);
        sd_bus_message* answer = nullptr;
        CheckBus(sd_bus_call_method(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", interface, method,
                                    nullptr, &answer, ""),
                 std::string("ask the bus for ") + method);
        reply.reset(answer);
    }

    sd_bus_message* Reply() const { return reply.get(); }

    std::string OwnName() const {
        const char* name = nullptr;
        CheckBus(sd_bus_get_unique_name(bus.get(), &name), "learn one's own name");
        return name;
    }

private:
    std::unique_ptr<sd_bus, Unref> bus;
    std::unique_ptr<sd_bus_message, Unref> reply;
};

std::vector<std::string> ReadStrings(sd_bus_message* message) {
    std::vector<std::string> strings;
    CheckBus(sd_bus_message_enter_container(message, 'a', "s"), "read strings");
    const char* text = nullptr;
    while (CheckBus(sd_bus_message_read(message, "s", &text), "read strings") > 0) {
        strings.emplace_back(text);
    }
    CheckBus(sd_bus_message_exit_container(message), "read strings");
    return strings;
}

[[noreturn]] void BecomeDaemon(int readyFd, const char* configurationPath) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
    // Descriptor 3 is where it tells its address, which means that it listens. Duplicated onto itself it would be
    // closed.
    if (readyFd == 3) {
        fcntl(readyFd, F_SETFD, 0);
    } else {
        dup2(readyFd, 3);
    }
    execl("/usr/bin/dbus-daemon", "dbus-daemon", "--config-file", configurationPath, "--nofork", "--nopidfile",
          "--nosyslog", "--print-address=3", nullptr);
    _exit(127);
}

}  // namespace

PrivateBus::PrivateBus(State state) : hadAddress(std::getenv(addressVariable) != nullptr) {
    if (hadAddress) {
        addressBefore = std::getenv(addressVariable);
    }
    std::string text = configuration;
    const std::string place = "@SOCKET@";
    folder.Write("bus.conf", text.replace(text.find(place), place.size(), GetSocketPath()));
    setenv(addressVariable, ("unix:path=" + GetSocketPath()).c_str(), 1);
    if (state == State::Running) {
        Start();
    }
}

PrivateBus::~PrivateBus() {
    Kill();
    if (hadAddress) {
        setenv(addressVariable, addressBefore.c_str(), 1);
    } else {
        unsetenv(addressVariable);
    }
}

void PrivateBus::Start() {
    const std::string configurationPath = folder.PathOf("bus.conf");
    std::array<int, 2> ready{};
    if (pipe2(ready.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("cannot make a pipe");
    }
    daemon = fork();
    if (daemon == 0) {
        BecomeDaemon(ready[1], configurationPath.c_str());
    }
    close(ready[1]);
    char first = 0;
    const ssize_t count = read(ready[0], &first, 1);
    close(ready[0]);
    if (count != 1) {
        throw std::runtime_error("dbus-daemon does not start");
    }
}

void PrivateBus::Kill() {
    if (daemon > 0) {
        kill(daemon, SIGKILL);
        waitpid(daemon, nullptr, 0);
        daemon = 0;
    }
}

void PrivateBus::Freeze() const {
    kill(daemon, SIGSTOP);
    waitpid(daemon, nullptr, WUNTRACED);
}

void PrivateBus::Thaw() const {
    kill(daemon, SIGCONT);
}

std::vector<std::string> PrivateBus::UniqueNames() const {
    const Question question("org.freedesktop.DBus", "ListNames");
    std::vector<std::string> names = ReadStrings(question.Reply());
    std::erase_if(names, [&](const std::string& name) { return name[0] != ':' || name == question.OwnName(); });
    return names;
}

std::map<std::string, std::vector<std::string>> PrivateBus::MatchRules() const {
    const Question question("org.freedesktop.DBus.Debug.Stats", "GetAllMatchRules");
    std::map<std::string, std::vector<std::string>> rules;
    CheckBus(sd_bus_message_enter_container(question.Reply(), 'a', "{sas}"), "read the rules");
    while (CheckBus(sd_bus_message_enter_container(question.Reply(), 'e', "sas"), "read the rules") > 0) {
        const char* connection = nullptr;
        CheckBus(sd_bus_message_read(question.Reply(), "s", &connection), "read the rules");
        std::vector<std::string> own = ReadStrings(question.Reply());
        CheckBus(sd_bus_message_exit_container(question.Reply()), "read the rules");
        if (!own.empty()) {
            rules[connection] = std::move(own);
        }
    }
    return rules;
}

size_t PrivateBus::CountMatchRules(const std::string& part) const {
    size_t count = 0;
    for (const auto& [connection, rules] : MatchRules()) {
        for (const std::string& rule : rules) {
            count += rule.find(part) == std::string::npos ? 0 : 1;
        }
    }
    return count;
}

}  // namespace kelto::test
