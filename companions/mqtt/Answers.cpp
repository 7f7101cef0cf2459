#include "companions/mqtt/Answers.h"

#include "companions/common/Json.h"
#include "companions/common/Printable.h"
#include "companions/mqtt/CameraSettings.h"
#include "companions/mqtt/Configuration.h"
#include "companions/mqtt/Discovery.h"
#include "companions/mqtt/MachineId.h"
#include "companions/mqtt/StatusFile.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <stdexcept>

namespace kelto::halvek::mqtt {

using companion::ExitStatus;
using enum companion::ExitStatus;

namespace {

void AddOwnWarnings(Configuration& configuration) {
    if (!configuration.settings.isIdMade || !MachineId::ComesWithTheImage()) {
        return;
    }
    const std::string address = MachineId::NetworkAddress();
    std::string text = "the Id is made from /etc/machine-id, which came with the image: all its copies have the same";
    if (!address.empty()) {
        text += ". Write Id=" + address;
    }
    configuration.findings.push_back({false, {1, 1}, text});
}

std::string FindingsAsText(const Configuration& configuration) {
    std::string text;
    for (const Finding& finding : configuration.findings) {
        text += companion::Printable(configuration.Text(finding)) + "\n";
    }
    return text.empty() ? "Nothing is wrong with " + companion::Printable(configuration.path) + "\n" : text;
}

std::string FindingsAsJson(const Configuration& configuration) {
    companion::Json json;
    json.BeginObject().Key("format").Number(1);
    json.Key("tool").String("halvek-mqtt " HALVEK_MQTT_VERSION);
    json.Key("verb").String("check");
    json.Key("findings").BeginArray();
    for (const Finding& finding : configuration.findings) {
        json.BeginObject().Key("severity").String(finding.isError ? "error" : "warning");
        json.Key("file").String(configuration.path);
        json.Key("line").Number(finding.place.line);
        json.Key("column").Number(finding.place.column);
        json.Key("text").String(finding.text).EndObject();
    }
    return json.EndArray().EndObject().Text() + "\n";
}

std::string Field(const nlohmann::json& status, const char* name) {
    const auto found = status.find(name);
    return found != status.end() && found->is_string() ? found->get<std::string>() : std::string();
}

/** "received 12, sent 10, ..." */
std::string CountersAsText(const nlohmann::json& status) {
    std::string text;
    for (const auto& [name, value] : status.at("counters").items()) {
        text += (text.empty() ? "" : ", ") + name + " " + value.dump();
    }
    return text;
}

std::string StatusAsText(const nlohmann::json& status) {
    std::string text = Field(status, "state") + ": " + Field(status, "broker") + " as " + Field(status, "id");
    if (const std::string protocol = Field(status, "protocol"); !protocol.empty()) {
        text += ", MQTT " + protocol;
    }
    text += "\n";
    if (const std::string problem = Field(status, "problem"); !problem.empty()) {
        text += "problem: " + problem + "\n";
    }
    if (const std::string next = Field(status, "next_attempt"); !next.empty()) {
        text += "next attempt: " + next + "\n";
    }
    text += "since " + Field(status, "since") + ", process " + status.at("pid").dump() + "\n";
    text += "queued " + status.at("queued").dump() + "; " + CountersAsText(status) + "\n";
    return text;
}

}  // namespace

ExitStatus Answers::Check(const Invocation& invocation, std::string& answer) {
    Configuration configuration = Configuration::Load(invocation.config, Configuration::Secrets::WantedIfThere);
    AddOwnWarnings(configuration);
    answer = invocation.wantsJson ? FindingsAsJson(configuration) : FindingsAsText(configuration);
    return configuration.HasErrors() ? exitNo : exitYes;
}

ExitStatus Answers::PrintDiscovery(const Invocation& invocation, std::string& answer) {
    const Configuration configuration = Configuration::Load(invocation.config, Configuration::Secrets::WantedIfThere);
    if (configuration.HasErrors()) {
        answer = FindingsAsText(configuration);
        return exitNo;
    }
    CameraFacts facts = CameraSettings::Read(CameraSettings::Path());
    facts.types.insert(configuration.settings.types.begin(), configuration.settings.types.end());
    facts.types.insert(configuration.settings.post.begin(), configuration.settings.post.end());
    answer = Discovery::Payload(configuration.settings, facts) + "\n";
    return exitYes;
}

ExitStatus Answers::Status(const Invocation& invocation, std::string& answer) {
    const std::optional<std::string> status = StatusFile::Read(StatusFile::defaultFolder);
    if (!status) {
        throw std::runtime_error("no halvek-mqtt is running");
    }
    const nlohmann::json json = nlohmann::json::parse(*status);
    if (invocation.wantsJson) {
        answer = *status + "\n";
    } else {
        const std::string text = StatusAsText(json);
        for (size_t begin = 0; begin < text.size();) {
            const size_t end = text.find('\n', begin);
            answer += companion::Printable(text.substr(begin, end - begin)) + "\n";
            begin = end + 1;
        }
    }
    return Field(json, "state") == "connected" ? exitYes : exitNo;
}

}  // namespace kelto::halvek::mqtt
