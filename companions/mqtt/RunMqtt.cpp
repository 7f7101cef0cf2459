#include "companions/mqtt/RunMqtt.h"

#include "companions/common/ExitStatus.h"
#include "companions/common/Printable.h"
#include "companions/common/ServiceManager.h"
#include "companions/mqtt/Answers.h"
#include "companions/mqtt/Configuration.h"
#include "companions/mqtt/Invocation.h"
#include "companions/mqtt/Log.h"
#include "companions/mqtt/Service.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

namespace kelto::halvek::mqtt {

using companion::ExitStatus;
using enum companion::ExitStatus;

namespace {

constexpr const char* help =
    "usage: halvek-mqtt [--config FILE]\n"
    "       halvek-mqtt check [FILE] [--format text|json]\n"
    "       halvek-mqtt print-discovery [FILE]\n"
    "       halvek-mqtt status [--format text|json]\n"
    "       halvek-mqtt --help | --version\n"
    "\n"
    "Publishes the camera's events, alarm states and health on an MQTT broker.\n"
    "\n"
    "Without a verb it is the service. FILE is /etc/halvek-mqtt/mqtt.conf if none is given.\n"
    "  check            what is wrong with the configuration\n"
    "  print-discovery  what home automation is told of the camera\n"
    "  status           how the running service gets on with its broker\n"
    "\n"
    "Status: 0 yes, 1 no, 2 wrong command line, 3 it could not be done; of the service: 0 stopped, 1 failed,\n"
    "78 the configuration is wrong.\n";

void Complain(const std::string& text) {
    const std::string line = "halvek-mqtt: " + companion::Printable(text) + "\n";
    static_cast<void>(std::fputs(line.c_str(), stderr));
}

ExitStatus Serve(const Invocation& invocation) {
    Service::BlockSignals();
    std::optional<Configuration> configuration;
    try {
        configuration = Configuration::Load(invocation.config, Configuration::Secrets::Wanted);
    } catch (const std::system_error& error) {
        Log::Error(error.what());
        return exitConfiguration;
    }
    for (const Finding& finding : configuration->findings) {
        (finding.isError ? Log::Error : Log::Warning)(configuration->Text(finding));
    }
    if (configuration->HasErrors()) {
        companion::ServiceManager::Tell("STATUS=The configuration is wrong");
        return exitConfiguration;
    }
    try {
        Service(std::move(*configuration)).Run();
        return exitYes;
    } catch (const std::system_error& error) {
        Log::Error(error.what());
        return exitNo;
    }
}

ExitStatus Do(const Invocation& invocation, std::string& answer) {
    switch (invocation.deed) {
        case Invocation::Deed::Serve:
            return Serve(invocation);
        case Invocation::Deed::Check:
            return Answers::Check(invocation, answer);
        case Invocation::Deed::PrintDiscovery:
            return Answers::PrintDiscovery(invocation, answer);
        case Invocation::Deed::Status:
            return Answers::Status(invocation, answer);
        case Invocation::Deed::Help:
            answer = help;
            return exitYes;
        case Invocation::Deed::Version:
            answer = "halvek-mqtt " HALVEK_MQTT_VERSION "\n";
            return exitYes;
    }
    return exitFailed;
}

}  // namespace

int RunMqtt(int argc, char** argv) {
    try {
        std::string answer;
        const ExitStatus status = Do(Invocation::Parse({argv + std::min(argc, 1), argv + argc}), answer);
        const bool isWritten = std::fputs(answer.c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
        if (!isWritten) {
            Complain("the answer cannot be written");
            return exitFailed;
        }
        return status;
    } catch (const UsageError& error) {
        Complain(error.what());
        return exitUsage;
    } catch (const std::exception& failure) {
        Complain(failure.what());
        return exitFailed;
    }
}

}  // namespace kelto::halvek::mqtt
