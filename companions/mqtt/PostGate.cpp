#include "companions/mqtt/PostGate.h"

#include "companions/common/PostRefusal.h"
#include "companions/common/PostedEvent.h"
#include "companions/mqtt/Topics.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace kelto::halvek::mqtt {

using companion::EventPipe;
using companion::PostedEvent;
using companion::PostRefusal;

namespace {

constexpr const char* way = "via";
constexpr const char* ourWay = "mqtt";

const std::string* Find(const std::vector<std::pair<std::string, std::string>>& properties, std::string_view key) {
    const auto found =
        std::find_if(properties.begin(), properties.end(), [&](const auto& property) { return property.first == key; });
    return found == properties.end() ? nullptr : &found->second;
}

}  // namespace

void PostGate::SetLists(const std::vector<std::string>& allowedTypes, const std::vector<std::string>& allowedRegions) {
    types.clear();
    for (const std::string& type : allowedTypes) {
        types.emplace(Topics::Level(type), type);
    }
    regions = allowedRegions;
}

const char* PostGate::Take(std::string_view level, std::string_view payload, bool isRetained, Milliseconds now) {
    if (isRetained) {
        return "retained";
    }
    const auto type = types.find(level);
    if (type == types.end()) {
        return "type";
    }
    if (payload.size() > largestPost) {
        return "size";
    }
    const std::optional<Properties> properties = Read(payload);
    if (!properties) {
        return "grammar";
    }
    if (!IsAllowed(*properties)) {
        return "type";
    }
    const std::string* id = Find(*properties, "id");
    if (id != nullptr && std::find(postedIds.begin(), postedIds.end(), *id) != postedIds.end()) {
        return "posted";
    }
    if (!TakeToken(now)) {
        return "rate";
    }
    const char* result = Post(type->second, *properties);
    if (id != nullptr && std::string_view(result) == "posted") {
        postedIds.push_back(*id);
        if (postedIds.size() > mostIds) {
            postedIds.pop_front();
        }
    }
    return result;
}

std::optional<PostGate::Properties> PostGate::Read(std::string_view payload) {
    const nlohmann::json json = nlohmann::json::parse(payload, nullptr, false);
    if (!json.is_object()) {
        return std::nullopt;
    }
    Properties properties;
    for (const auto& [key, value] : json.items()) {
        if (!value.is_string()) {
            return std::nullopt;
        }
        properties.emplace_back(key, value.get<std::string>());
    }
    return properties;
}

bool PostGate::IsAllowed(const Properties& properties) const {
    const std::string* region = Find(properties, "region");
    const bool isRegionAllowed =
        region == nullptr || std::find(regions.begin(), regions.end(), *region) != regions.end();
    const std::string* origin = Find(properties, way);
    return isRegionAllowed && (origin == nullptr || *origin != ourWay);
}

bool PostGate::TakeToken(Milliseconds now) {
    const int64_t grown = tokens + (now - tokensAt) / pace;
    if (grown >= burst) {
        tokens = burst;
        tokensAt = now;
    } else {
        tokensAt += pace * (grown - tokens);
        tokens = static_cast<int>(grown);
    }
    if (tokens == 0) {
        return false;
    }
    --tokens;
    return true;
}

const char* PostGate::Post(const std::string& type, const Properties& properties) {
    try {
        PostedEvent event(type);
        for (const auto& [key, value] : properties) {
            event.Set(key, value);
        }
        event.Set(way, ourWay);
        return pipe.Post(event) == EventPipe::Outcome::Posted ? "posted" : "no-pipe";
    } catch (const PostRefusal& refusal) {
        return refusal.GetReason() == PostRefusal::Reason::Size ? "size" : "grammar";
    }
}

}  // namespace kelto::halvek::mqtt
