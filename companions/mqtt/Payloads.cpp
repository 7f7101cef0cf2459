#include "companions/mqtt/Payloads.h"

#include "companions/common/ClockState.h"

#include <nlohmann/json.hpp>

namespace kelto::halvek::mqtt {

namespace {

constexpr int formatVersion = 1;

void AddNumber(companion::Json& json, std::string_view key, uint64_t number) {
    json.Key(key).Number(static_cast<int64_t>(number));
}

}  // namespace

std::string Payloads::Event(const QueuedEvent& event, const Identity& identity, std::chrono::milliseconds queued,
                            bool isReplayed) {
    companion::Json json;
    json.BeginObject().Key("v").Number(formatVersion);
    json.Key("id").String(identity.EventId(event.number));
    json.Key("type").String(event.event.type);
    json.Key("time").String(companion::ClockState::IsoTime(event.time));
    json.Key("clock").String(event.isClockSynced ? "synced" : "unsynced");
    json.Key("queued_ms").Number(queued.count());
    json.Key("replayed").Bool(isReplayed);
    json.Key("lossy").Bool(event.event.isLossy);
    if (event.event.isStale) {
        json.Key("stale").Bool(true);
    }
    if (event.event.isCut) {
        json.Key("cut").Bool(true);
    }
    json.Key("props").BeginObject();
    for (const auto& [key, value] : event.event.properties) {
        json.Key(key).String(value);
    }
    return json.EndObject().EndObject().Text();
}

std::string Payloads::Info(const Identity& identity) {
    companion::Json json;
    json.BeginObject().Key("v").Number(formatVersion);
    json.Key("bridge").String(HALVEK_MQTT_VERSION);
    json.Key("boot").String(identity.boot);
    json.Key("since").String(identity.since);
    json.Key("host").String(identity.host);
    return json.EndObject().Text();
}

std::optional<Identity> Payloads::ReadInfo(std::string_view payload) {
    const auto json = nlohmann::json::parse(payload, nullptr, false);
    if (!json.is_object()) {
        return std::nullopt;
    }
    const auto boot = json.find("boot");
    const auto since = json.find("since");
    if (boot == json.end() || since == json.end() || !boot->is_string() || !since->is_string()) {
        return std::nullopt;
    }
    return Identity{boot->get<std::string>(), since->get<std::string>(), {}};
}

std::string Payloads::Stats(const Counters& counters) {
    companion::Json json;
    json.BeginObject();
    AddCounters(json, counters);
    return json.EndObject().Text();
}

void Payloads::AddCounters(companion::Json& json, const Counters& counters) {
    AddNumber(json, "received", counters.received);
    AddNumber(json, "sent", counters.sent);
    AddNumber(json, "dropped_full", counters.droppedFull);
    AddNumber(json, "dropped_old", counters.droppedOld);
    AddNumber(json, "dropped_topic", counters.droppedTopic);
    AddNumber(json, "refused", counters.refused);
    AddNumber(json, "stale", counters.stale);
    AddNumber(json, "refused_posts", counters.refusedPosts);
}

std::string Payloads::PostResult(uint64_t number, std::string_view result) {
    companion::Json json;
    json.BeginObject();
    AddNumber(json, "n", number);
    return json.Key("result").String(result).EndObject().Text();
}

}  // namespace kelto::halvek::mqtt
