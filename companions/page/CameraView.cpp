#include "companions/page/CameraView.h"

#include "companions/common/Json.h"

#include <cmath>

namespace kelto::page {

namespace {

using companion::Json;

constexpr const char* banks[] = {"Local", "Remote"};
constexpr int32_t inputsPerBank = 8;

void WriteAlarms(Json& json, const CameraView& view) {
    json.Key("alarms").BeginArray();
    for (const char* const bank : banks) {
        for (int32_t index = 0; index < inputsPerBank; ++index) {
            const auto found = view.alarms.find({bank, index});
            json.BeginObject().Key("bank").String(bank).Key("index").Number(index);
            json.Key("active").Bool(found != view.alarms.end() && found->second).EndObject();
        }
    }
    json.EndArray();
}

void WriteRelays(Json& json, const CameraView& view) {
    json.Key("relays").BeginArray();
    for (const CameraView::Relay& relay : view.relays) {
        json.BeginObject().Key("bank").String(relay.bank).Key("index").Number(relay.index);
        json.Key("on").Bool(relay.on).Key("polarity").Bool(relay.polarity).Key("mode").Number(relay.mode);
        json.Key("onMs").Number(relay.onMs).Key("offMs").Number(relay.offMs);
        json.Key("pulseCount").Number(relay.pulseCount);
        json.Key("pulse").Number(relay.pulse).Key("pulses").Number(relay.pulses).EndObject();
    }
    json.EndArray();
}

void WriteHead(Json& json, const CameraView& view) {
    json.Key("head").BeginObject();
    json.Key("position").Number(std::lround(view.position)).Key("target").Number(std::lround(view.target));
    json.Key("remainingMs").Number(static_cast<int64_t>(view.timeToTarget / 1'000));
    json.Key("idle").Number(view.idleState).Key("route").BeginArray();
    for (const int32_t preset : view.route) {
        json.Number(preset);
    }
    json.EndArray().EndObject();
}

void WriteFaults(Json& json, const CameraView& view) {
    json.Key("faults").BeginObject();
    for (const auto& [provider, kind] : view.faults) {
        json.Key(provider).String(kind);
    }
    json.EndObject();
}

}  // namespace

void CameraView::Write(Json& json) const {
    json.Key("camera").Bool(isThere);
    WriteAlarms(json, *this);
    WriteRelays(json, *this);
    WriteHead(json, *this);
    json.Key("recording").BeginObject().Key("a").Bool(recordingA).Key("b").Bool(recordingB).EndObject();
    WriteFaults(json, *this);
}

}  // namespace kelto::page
