#include "companions/mqtt/Discovery.h"

#include "companions/common/Json.h"
#include "companions/mqtt/Topics.h"

#include <nlohmann/json.hpp>

#include <array>
#include <optional>

namespace kelto::halvek::mqtt {

using companion::Json;

namespace {

/** The event's type must be in what the template makes, and all else in it becomes an attribute. */
constexpr std::string_view eventTemplate =
    "{{ dict(value_json.props, event_type=value_json.type, event_id=value_json.id, event_time=value_json.time) "
    "| tojson }}";

struct Counter {
    std::string_view component;
    std::string_view name;
    std::string_view valueTemplate;
};
constexpr std::array<Counter, 3> counters{{
    {"sent", "Events sent", "{{ value_json.sent }}"},
    {"dropped", "Events dropped",
     "{{ value_json.dropped_full + value_json.dropped_old + value_json.dropped_topic + value_json.refused }}"},
    {"refused_posts", "Posts refused", "{{ value_json.refused_posts }}"},
}};
constexpr std::string_view sinceComponent = "since";
constexpr std::string_view pictureComponent = "snapshot";
constexpr std::string_view picturePlatform = "image";

std::string EventComponent(const std::string& type) {
    return "event_" + Topics::Level(type);
}

std::string AlarmComponent(const AlarmName& alarm) {
    return "alarm_" + Topics::Level(alarm.first) + "_" + Topics::Level(alarm.second);
}

/** What every component begins with. */
void Begin(Json& json, const Settings& settings, std::string_view component, std::string_view platform,
           std::string_view name, std::string_view topic) {
    json.Key(component).BeginObject();
    json.Key("p").String(platform);
    json.Key("uniq_id").String("halvek_" + settings.id + "_" + std::string(component));
    json.Key("name").String(name);
    json.Key("stat_t").String(topic);
}

void AddDevice(Json& json, const Settings& settings) {
    json.Key("dev").BeginObject();
    json.Key("ids").BeginArray().String("halvek_" + settings.id).EndArray();
    json.Key("name").String(settings.id);
    json.Key("mdl").String("halvek");
    json.Key("sw").String(HALVEK_MQTT_VERSION);
    json.EndObject();
    json.Key("o").BeginObject();
    json.Key("name").String("halvek-mqtt");
    json.Key("sw").String(HALVEK_MQTT_VERSION);
    json.EndObject();
}

void AddEvent(Json& json, const Settings& settings, const std::string& type, const std::string& topic) {
    Begin(json, settings, EventComponent(type), "event", type, topic);
    json.Key("evt_typ").BeginArray().String(type).EndArray();
    json.Key("val_tpl").String(eventTemplate);
    json.EndObject();
}

void AddAlarm(Json& json, const Settings& settings, const AlarmName& alarm, const std::string& topic) {
    Begin(json, settings, AlarmComponent(alarm), "binary_sensor", alarm.first + " " + alarm.second, topic);
    json.Key("pl_on").String("ON");
    json.Key("pl_off").String("OFF");
    json.EndObject();
}

void AddCounters(Json& json, const Settings& settings, const Topics& topics) {
    for (const Counter& counter : counters) {
        Begin(json, settings, counter.component, "sensor", counter.name, topics.Stats());
        json.Key("val_tpl").String(counter.valueTemplate);
        json.Key("stat_cla").String("total_increasing");
        json.Key("ent_cat").String("diagnostic");
        json.EndObject();
    }
    Begin(json, settings, sinceComponent, "sensor", "Bridge since", topics.Info());
    json.Key("val_tpl").String("{{ value_json.since }}");
    json.Key("dev_cla").String("timestamp");
    json.Key("ent_cat").String("diagnostic");
    json.EndObject();
}

void AddPicture(Json& json, const Settings& settings, const Topics& topics) {
    json.Key(pictureComponent).BeginObject();
    json.Key("p").String(picturePlatform);
    json.Key("uniq_id").String("halvek_" + settings.id + "_" + std::string(pictureComponent));
    json.Key("name").String("Snapshot");
    json.Key("img_t").String(topics.Snapshot());
    json.Key("cont_type").String("image/jpeg");
    json.EndObject();
}

std::string_view PlatformOf(std::string_view component) {
    if (component == pictureComponent) {
        return picturePlatform;
    }
    const bool isEvent = component.starts_with("event_");
    return isEvent ? "event" : component.starts_with("alarm_") ? "binary_sensor" : "sensor";
}

/** A platform alone has the component removed. */
void AddRemoved(Json& json, const std::string& component) {
    json.Key(component).BeginObject();
    json.Key("p").String(PlatformOf(component));
    json.EndObject();
}

}  // namespace

std::string Discovery::Payload(const Settings& settings, const CameraFacts& facts,
                               const std::set<std::string>& removed) {
    const Topics topics(settings.prefix, settings.id);
    Json json;
    json.BeginObject();
    AddDevice(json, settings);
    json.Key("avty_t").String(topics.Status());
    json.Key("qos").Number(1);
    json.Key("cmps").BeginObject();
    for (const std::string& type : facts.types) {
        if (const std::optional<std::string> topic = topics.Event(type); topic && settings.Takes(type)) {
            AddEvent(json, settings, type, *topic);
        }
    }
    for (const AlarmName& alarm : facts.alarms) {
        if (const std::optional<std::string> topic = topics.Alarm(alarm.first, alarm.second)) {
            AddAlarm(json, settings, alarm, *topic);
        }
    }
    AddCounters(json, settings, topics);
    if (settings.publishesPictures) {
        AddPicture(json, settings, topics);
    }
    for (const std::string& component : removed) {
        AddRemoved(json, component);
    }
    return json.EndObject().EndObject().Text();
}

std::set<std::string> Discovery::Components(const Settings& settings, const CameraFacts& facts) {
    return ComponentsIn(Payload(settings, facts));
}

std::set<std::string> Discovery::ComponentsIn(std::string_view payload) {
    std::set<std::string> names;
    const nlohmann::json json = nlohmann::json::parse(payload, nullptr, false);
    if (!json.is_object()) {
        return names;
    }
    const auto components = json.find("cmps");
    const auto origin = json.find("o");
    const bool isOurs =
        origin != json.end() && origin->is_object() && origin->value("name", nlohmann::json()) == "halvek-mqtt";
    if (!isOurs || components == json.end() || !components->is_object()) {
        return names;
    }
    for (const auto& [name, component] : components->items()) {
        names.insert(name);
    }
    return names;
}

}  // namespace kelto::halvek::mqtt
