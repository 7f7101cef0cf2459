#include "companions/ctl/JsonAnswer.h"

namespace kelto::halvek::ctl {

namespace {

/** Fields may be added to an answer of this format; none ever changes its meaning. */
constexpr int64_t formatNumber = 1;

}  // namespace

void JsonAnswer::Begin(companion::Json& json, const char* verb) {
    json.BeginObject();
    json.Key("format").Number(formatNumber);
    json.Key("tool").String("halvekctl " HALVEKCTL_VERSION);
    json.Key("verb").String(verb);
}

void JsonAnswer::Begin(companion::Json& json, const char* verb, const StoreLocation& location) {
    Begin(json, verb);
    json.Key("settings").String(location.GetPath());
    json.Key("zone");
    location.GetZone() ? json.String(*location.GetZone()) : json.Null();
}

void JsonAnswer::AddPlace(companion::Json& json, const std::optional<Position>& place) {
    const bool isInAFile = place && place->IsInAFile();
    json.Key("file");
    isInAFile ? json.String(place->file) : json.Null();
    json.Key("line");
    isInAFile ? json.Number(place->line) : json.Null();
}

}  // namespace kelto::halvek::ctl
