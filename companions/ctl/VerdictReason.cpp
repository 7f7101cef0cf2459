#include "companions/ctl/VerdictReason.h"

#include "companions/ctl/HandlerName.h"
#include "companions/ctl/LocalTime.h"
#include "companions/ctl/Terminal.h"
#include "handler/FilterChain.h"
#include "handler/HandlerKeys.h"
#include "monitor/EventMonitor.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

namespace kelto::halvek::ctl {

namespace {

const std::string timesKey = FilterChain::keys.Text("EnabledTimes").name;
const std::string daysKey = FilterChain::keys.Text("EnabledDays").name;
const std::string typeKey = EventMonitor::typeKeys.Text("Type").name;

/** The key that a handler cannot do without: it stands first in its type's table. */
std::string MainKey(const std::string& type) {
    for (const HandlerKeys& known : KeysOfHandlers()) {
        if (type == known.type && !known.keys.empty()) {
            return std::string(NameOf(known.keys.front()));
        }
    }
    return typeKey;
}

/** The key that a record of a fault is about; empty if it names none that there is. */
std::string KeyOfRecord(const std::string& text, const ModelHandler& handler) {
    if (text.starts_with("CreateHandlerByName failed")) {
        return typeKey;
    }
    if (text.find("No file attachment wanted") != std::string::npos) {
        return "Attachment";
    }
    for (const auto& [key, value] : handler.settings) {
        if (text.find("key " + key + " ") != std::string::npos) {
            return key;
        }
    }
    return {};
}

std::string Setting(const ModelHandler& handler, const std::string& key) {
    const auto value = handler.settings.find(key);
    return key + "=" + (value == handler.settings.end() ? "" : Terminal::ShownValue(key, value->second));
}

std::string ClockText(const LocalTime& local) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%02d:%02d", local.hour, local.minute);
    return text.data();
}

std::string ShortAndEscaped(const std::string& group) {
    return Terminal::Escape(HandlerName::Short(group));
}

}  // namespace

std::optional<Position> VerdictReason::Place(const ModelVerdict& verdict) const {
    const ModelHandler* const handler = model.FindHandler(verdict.handler);
    if (handler == nullptr) {
        return std::nullopt;
    }
    switch (verdict.verdict) {
        case Verdict::Acts:
            return PlaceOfGroup(*handler);
        case Verdict::OutOfDay:
            return PlaceOfKey(*handler, daysKey);
        case Verdict::OutOfTime:
        case Verdict::UnreadableRange:
            return PlaceOfKey(*handler, timesKey);
        case Verdict::NotConfigured:
            return PlaceOfKey(*handler, MainKey(handler->type));
        case Verdict::BehindFailing: {
            const ModelHandler* const failing = model.FindHandler(verdict.because);
            return failing == nullptr ? std::nullopt : PlaceOfKey(*failing, MainKey(failing->type));
        }
        case Verdict::LeftOut:
            return PlaceOfFault(*handler);
        case Verdict::OtherType:
            return PlaceOfSource(*handler, false);
        case Verdict::NotWired:
        case Verdict::NoEventPipe:
            return PlaceOfSource(*handler, true);
    }
    return std::nullopt;
}

std::string VerdictReason::Text(const ModelVerdict& verdict, int64_t time) const {
    const ModelHandler* const handler = model.FindHandler(verdict.handler);
    if (handler == nullptr) {
        return {};
    }
    const LocalTime local(time);
    const ModelRecord* const record = FindRecord(handler->group);
    const std::string told = record == nullptr ? "" : ": " + Terminal::Escape(record->text);
    switch (verdict.verdict) {
        case Verdict::Acts:
            return "by " + ShortAndEscaped(verdict.source) +
                   (handler->asksBus ? ", if the camera tells it a bank at the start" : "");
        case Verdict::OutOfDay:
            return Setting(*handler, daysKey) + ", and it is " + local.date.Weekday();
        case Verdict::OutOfTime:
            return Setting(*handler, timesKey) + ", and it is " + ClockText(local);
        case Verdict::UnreadableRange:
            return "acts, because the daemon cannot read " + Setting(*handler, timesKey);
        case Verdict::NotConfigured:
            return "without " + MainKey(handler->type) + " each event fails here, and for all behind it";
        case Verdict::BehindFailing:
            return ShortAndEscaped(verdict.because) + " fails before it";
        case Verdict::LeftOut:
            return "the daemon does without it" + told;
        case Verdict::OtherType:
            return "it listens to other events";
        case Verdict::NotWired:
            return handler->sourceIds.empty() ? "it has no SourceIds"
                                              : "it is attached to no source of this event" + told;
        case Verdict::NoEventPipe:
            return "there is no event server, so nobody can post this event";
    }
    return {};
}

/** The first of its groups that there is: the daemon needs none but the last. */
std::optional<Position> VerdictReason::PlaceOfGroup(const ModelHandler& handler) const {
    std::optional<Position> place = positions.Find(handler.group);
    if (!place) {
        place = positions.Find(handler.group + "/" + EventMonitor::sourceIdsGroup);
    }
    for (const HandlerKeys& type : KeysOfHandlers()) {
        if (!place) {
            place = positions.Find(handler.group + "/" + type.type);
        }
    }
    return place;
}

/** The type's own group wins over the common one. */
std::optional<Position> VerdictReason::PlaceOfKey(const ModelHandler& handler, const std::string& key) const {
    std::optional<Position> place = positions.Find(handler.group + "/" + handler.type, key);
    if (!place) {
        place = positions.Find(handler.group, key);
    }
    return place ? place : PlaceOfGroup(handler);
}

/** The first of its source ids; or the first that leads to no source. */
std::optional<Position> VerdictReason::PlaceOfSource(const ModelHandler& handler, bool onlyMissing) const {
    const std::string group = handler.group + "/" + EventMonitor::sourceIdsGroup;
    for (const auto& [key, id] : handler.sourceIds) {
        if (!onlyMissing || model.FindSource(id) == nullptr) {
            return positions.Find(group, key);
        }
    }
    return PlaceOfGroup(handler);
}

std::optional<Position> VerdictReason::PlaceOfFault(const ModelHandler& handler) const {
    const ModelRecord* const record = FindRecord(handler.group);
    const std::string key = record == nullptr ? "" : KeyOfRecord(record->text, handler);
    return key.empty() ? PlaceOfGroup(handler) : PlaceOfKey(handler, key);
}

/** The last one: what comes before did not keep the daemon from going on. */
const ModelRecord* VerdictReason::FindRecord(const std::string& group) const {
    const auto found = std::find_if(model.records.rbegin(), model.records.rend(),
                                    [&](const ModelRecord& record) { return record.group == group; });
    return found == model.records.rend() ? nullptr : &*found;
}

}  // namespace kelto::halvek::ctl
