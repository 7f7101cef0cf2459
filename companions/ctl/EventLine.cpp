#include "companions/ctl/EventLine.h"

#include "companions/common/ClockState.h"
#include "companions/common/Json.h"
#include "companions/ctl/Terminal.h"

#include <system_error>

namespace kelto::halvek::ctl {

namespace {

using companion::ClockState;
using companion::ReceivedEvent;

std::string BootIfKnown() {
    try {
        return ClockState::BootId();
    } catch (const std::system_error&) {
        return "";
    }
}

std::string_view Shown(const std::string& key, const std::string& value) {
    return Terminal::IsSecret(key) ? "***" : std::string_view(value);
}

/** In quotes where a reader could not tell where it begins and ends. */
std::string Quoted(std::string_view value) {
    if (!value.empty() && value.find_first_of(" \"\\=") == std::string_view::npos) {
        return Terminal::Escape(value);
    }
    std::string text = "\"";
    for (const char character : value) {
        if (character == '"' || character == '\\') {
            text.push_back('\\');
        }
        text.push_back(character);
    }
    return Terminal::Escape(text) + "\"";
}

std::string Plain(const ReceivedEvent& event, const ReadTime& time) {
    std::string line = ClockState::IsoTime(time.milliseconds) + " " + Terminal::Escape(event.type);
    for (const auto& [key, value] : event.properties) {
        line.append(" ").append(Terminal::Escape(key)).append("=").append(Quoted(Shown(key, value)));
    }
    if (event.isCut || event.isUnfinished) {
        line.append(" (incomplete)");
    }
    return line.append(event.isStale ? " (stale)\n" : "\n");
}

std::string Block(const ReceivedEvent& event) {
    std::string block = "[" + Terminal::Escape(event.type) + "]\n";
    for (const auto& [key, value] : event.properties) {
        block.append(Terminal::Escape(key)).append("=").append(Terminal::ShownValue(key, value)).append("\n");
    }
    return block.append(".\n");
}

}  // namespace

EventLine::EventLine(Look eventLook, std::optional<std::string> type)
    : look(eventLook), onlyType(std::move(type)), boot(BootIfKnown()) {}

bool EventLine::Miss(const ReceivedEvent& event) {
    const bool isWanted = !onlyType || *onlyType == event.type;
    number += isWanted ? 1 : 0;
    return isWanted;
}

std::string EventLine::Of(const ReceivedEvent& event, const ReadTime& time) {
    if (!Miss(event)) {
        return "";
    }
    switch (look) {
        case Look::Text:
            return Plain(event, time);
        case Look::Json:
            return Json(event, time);
        case Look::Raw:
            return Block(event);
    }
    return "";
}

std::string EventLine::Dropped(uint64_t count) const {
    switch (look) {
        case Look::Text:
            return "-- dropped " + std::to_string(count) + (count == 1 ? " event\n" : " events\n");
        case Look::Json:
            return "{\"dropped\":" + std::to_string(count) + "}\n";
        case Look::Raw:
            // A line that readers of blocks ignore.
            return "# dropped " + std::to_string(count) + "\n";
    }
    return "";
}

std::string EventLine::Json(const ReceivedEvent& event, const ReadTime& time) const {
    companion::Json json;
    json.BeginObject();
    json.Key("seq").Number(static_cast<int64_t>(number));
    json.Key("time").String(ClockState::IsoTime(time.milliseconds));
    json.Key("clock").String(time.isSynced ? "synced" : "unsynced");
    if (!boot.empty()) {
        json.Key("boot").String(boot);
    }
    json.Key("type").String(event.type);
    json.Key("props").BeginObject();
    for (const auto& [key, value] : event.properties) {
        json.Key(key).String(Shown(key, value));
    }
    json.EndObject();
    json.Key("stale").Bool(event.isStale);
    json.Key("lossy").Bool(event.isLossy);
    json.Key("complete").Bool(!event.isCut && !event.isUnfinished);
    return json.EndObject().Text() + "\n";
}

}  // namespace kelto::halvek::ctl
