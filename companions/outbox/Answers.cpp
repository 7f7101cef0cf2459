#include "companions/outbox/Answers.h"

#include "companions/common/ClockState.h"
#include "companions/common/ExitStatus.h"
#include "companions/outbox/Uptime.h"

#include <algorithm>

namespace kelto::halvek::outbox {

using companion::ClockState;
using companion::Json;
using enum companion::ExitStatus;

namespace {

/** Nothing that a terminal would act on. */
std::string Clean(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char byte) { return byte < 0x20 || byte == 0x7f; }, '?');
    return text;
}

std::string Padded(std::string text, size_t width) {
    text.resize(std::max(text.size() + 1, width), ' ');
    return text;
}

std::string NameOf(const Item& item) {
    const ItemHeader& header = item.file.header;
    if (!item.IsMail()) {
        return header.remote;
    }
    std::string names;
    for (const std::string& recipient : header.recipients) {
        names += (names.empty() ? "" : ", ") + recipient;
    }
    return names;
}

void Begin(Json& json, const std::string& verb) {
    json.BeginObject().Key("format").Number(1).Key("tool").String("halvek-outbox " HALVEK_OUTBOX_VERSION);
    json.Key("verb").String(verb);
}

}  // namespace

std::string Answers::Make(const FieldText::Fields& request) {
    std::string argument;
    for (const auto& [key, value] : request) {
        if (key == "verb") {
            verb = value;
        } else if (key == "format") {
            isJson = value == "json";
        } else if (key == "argument") {
            argument = value;
        }
    }
    const Reply reply = Run(verb, argument);
    return "status " + std::to_string(reply.status) + "\n" + reply.text;
}

Answers::Reply Answers::Run(const std::string& name, const std::string& argument) {
    if (name == "list" || name == "status") {
        if (!isJson) {
            return {exitYes, name == "list" ? ListText() : StatusText()};
        }
        Json json;
        Begin(json, verb);
        AddAll(json);
        return {exitYes, json.EndObject().Text() + "\n"};
    }
    if (name == "show") {
        return Show(argument);
    }
    if (name == "flush") {
        return Flush(argument);
    }
    if (name == "drop") {
        return Drop(argument);
    }
    if (name == "hold" || name == "release") {
        return SetHeld(argument, name == "hold");
    }
    return {exitUsage, "there is no verb " + Clean(name) + "\n"};
}

Answers::Reply Answers::Done(const std::string& text) const {
    if (!isJson) {
        return {exitYes, text.empty() ? "" : Clean(text) + "\n"};
    }
    Json json;
    Begin(json, verb);
    json.Key("done").Bool(true).Key("text").String(text);
    return {exitYes, json.EndObject().Text() + "\n"};
}

Answers::Reply Answers::Refuse(const std::string& text) const {
    if (!isJson) {
        return {exitNo, Clean(text) + "\n"};
    }
    Json json;
    Begin(json, verb);
    json.Key("done").Bool(false).Key("text").String(text);
    return {exitNo, json.EndObject().Text() + "\n"};
}

Item* Answers::FindItem(const std::string& argument) {
    const std::optional<uint64_t> id = SpoolFolder::IdOf(argument);
    Item* item = id ? queue.Find(*id) : nullptr;
    return item != nullptr && item->state != Item::State::Unheard ? item : nullptr;
}

std::string Answers::TargetWord(const std::string& name, const TargetEntry& target) const {
    return deliveries.IsHeld(name) ? "hold" : target.state.Word();
}

std::string Answers::ItemState(const Item& item) const {
    if (item.state == Item::State::Sending) {
        return "sending";
    }
    const std::string word = TargetWord(item.target, deliveries.All()[item.target]);
    if (item.state == Item::State::Uncertain && word == "ok") {
        return "uncertain";
    }
    return word == "ok" ? "queued" : word;
}

std::string Answers::ListText() const {
    std::string text;
    for (const auto& [id, item] : queue.All()) {
        if (item.state != Item::State::Unheard) {
            text += Clean(SpoolFolder::NameOf(id) + "  " + Padded(ItemState(item), 10) + Padded(item.target, 24) +
                          Padded(std::to_string(item.file.payloadSize), 10) + NameOf(item) +
                          (item.lastError.empty() ? "" : "  (" + item.lastError + ")")) +
                    "\n";
        }
    }
    return text.empty() ? "nothing is waiting\n" : text;
}

std::string Answers::StatusText() const {
    const Queue::Counts& counts = queue.GetCounts();
    std::string text;
    for (const Finding& finding : settings.findings) {
        text += "nothing is sent: " + Clean(finding.place + ": " + finding.text) + "\n";
    }
    if (held.IsAllHeld()) {
        text += "nothing is sent: held by \"halvek-outbox hold\"\n";
    }
    for (const auto& [name, target] : deliveries.All()) {
        text += Clean(Padded(TargetWord(name, target), 6) + name +
                      (target.state.Reason().empty() ? "" : ": " + target.state.Reason()) +
                      (held.IsHeld(name) ? ", held by \"halvek-outbox hold\"" : "")) +
                "\n";
    }
    text += "queued " + std::to_string(queue.Waiting()) + ", delivered " + std::to_string(counts.delivered) +
            ", failed " + std::to_string(counts.failed) + ", expired " + std::to_string(counts.expired) + ", dropped " +
            std::to_string(counts.dropped) + ", uncertain " + std::to_string(counts.uncertain) + "\n";
    return text + std::to_string(queue.Bytes()) + " bytes, " + std::to_string(queue.FlashBytes()) +
           " of them on flash\n";
}

void Answers::AddItem(Json& json, const Item& item) const {
    const ItemHeader& header = item.file.header;
    json.BeginObject().Key("id").String(SpoolFolder::NameOf(item.file.id));
    json.Key("target").String(item.target).Key("state").String(ItemState(item));
    json.Key("kind").String(item.IsMail() ? "mail" : "picture").Key("name").String(NameOf(item));
    json.Key("size").Number(static_cast<int64_t>(item.file.payloadSize));
    json.Key("accepted").String(ClockState::IsoTime(header.acceptedMs)).Key("clock");
    json.String(header.wasSynced ? "synced" : "unsynced").Key("tier").String(item.isOnFlash ? "flash" : "ram");
    json.Key("attempts").Number(item.attempts).Key("error").String(item.lastError);
    json.EndObject();
}

void Answers::AddAll(Json& json) const {
    json.Key("items").BeginArray();
    for (const auto& [id, item] : queue.All()) {
        if (item.state != Item::State::Unheard) {
            AddItem(json, item);
        }
    }
    json.EndArray().Key("targets").BeginArray();
    for (const auto& [name, target] : deliveries.All()) {
        json.BeginObject().Key("name").String(name).Key("state").String(TargetWord(name, target));
        json.Key("reason").String(target.state.Reason());
        json.Key("next_ms").Number(std::max<int64_t>(target.state.NextTry() - Uptime(), 0)).EndObject();
    }
    const Queue::Counts& counts = queue.GetCounts();
    json.EndArray().Key("counts").BeginObject();
    json.Key("queued").Number(static_cast<int64_t>(queue.Waiting()));
    json.Key("delivered").Number(static_cast<int64_t>(counts.delivered));
    json.Key("failed").Number(static_cast<int64_t>(counts.failed));
    json.Key("expired").Number(static_cast<int64_t>(counts.expired));
    json.Key("dropped").Number(static_cast<int64_t>(counts.dropped));
    json.Key("uncertain").Number(static_cast<int64_t>(counts.uncertain)).EndObject();
    json.Key("bytes").Number(static_cast<int64_t>(queue.Bytes()));
    json.Key("held").Bool(held.IsAllHeld()).Key("findings").BeginArray();
    for (const Finding& finding : settings.findings) {
        json.BeginObject().Key("file").String(finding.file).Key("line").Number(finding.position.line);
        json.Key("column").Number(finding.position.column).Key("text").String(finding.text).EndObject();
    }
    json.EndArray();
}

Answers::Reply Answers::Show(const std::string& argument) {
    const Item* item = FindItem(argument);
    if (item == nullptr) {
        return Refuse("there is no item " + argument);
    }
    Json json;
    Begin(json, verb);
    json.Key("item");
    AddItem(json, *item);
    if (isJson) {
        return {exitYes, json.EndObject().Text() + "\n"};
    }
    const ItemHeader& header = item->file.header;
    std::string text = "id        " + SpoolFolder::NameOf(item->file.id) + "\nstate     " + ItemState(*item) +
                       "\ntarget    " + Clean(item->target) + "\naccepted  " + ClockState::IsoTime(header.acceptedMs) +
                       (header.wasSynced ? "" : " (the clock was not set)") + "\nsize      " +
                       std::to_string(item->file.payloadSize) + "\nkept in   " + (item->isOnFlash ? "flash" : "RAM") +
                       "\nattempts  " + std::to_string(item->attempts) + "\n";
    text += item->IsMail() ? "from      " + Clean(header.sender) + "\nto        " + Clean(NameOf(*item)) + "\n"
                           : "host      " + Clean(header.host) + "\nuser      " + Clean(header.user) + "\nfile      " +
                                 Clean(header.remote) + "\n";
    return {exitYes, text + (item->lastError.empty() ? "" : "error     " + Clean(item->lastError) + "\n")};
}

Answers::Reply Answers::Flush(const std::string& argument) {
    size_t count = 0;
    for (auto& [name, target] : deliveries.All()) {
        if (argument.empty() || name == argument) {
            target.state.ProbeAnyway();
            ++count;
        }
    }
    if (count == 0 && !argument.empty()) {
        return Refuse("there is no target " + argument);
    }
    for (auto& [id, item] : queue.All()) {
        // Only what nobody knows to be there twice is left to its time.
        if (!item.wasUncertain && (argument.empty() || item.target == argument)) {
            item.notBefore = 0;
        }
    }
    return Done("");
}

Answers::Reply Answers::Drop(const std::string& argument) {
    Item* item = FindItem(argument);
    if (item == nullptr) {
        return Refuse("there is no item " + argument);
    }
    const TargetEntry& target = deliveries.All()[item->target];
    if (target.IsAt(item->file.id)) {
        *target.underWay->isCancelled = true;
    }
    queue.Finish(item->file.id, Queue::Fate::Dropped, "by \"halvek-outbox drop\"");
    return Done("");
}

Answers::Reply Answers::SetHeld(const std::string& argument, bool isHeld) {
    if (argument.empty()) {
        isHeld ? held.HoldAll() : held.ReleaseAll();
        for (auto& [name, target] : deliveries.All()) {
            if (!isHeld) {
                target.state.ProbeAnyway();
            }
        }
        return Done("");
    }
    const auto target = deliveries.All().find(argument);
    if (target == deliveries.All().end() && (isHeld || !held.IsHeld(argument))) {
        return Refuse("there is no target " + argument);
    }
    isHeld ? held.Hold(argument) : held.Release(argument);
    if (!isHeld && target != deliveries.All().end()) {
        target->second.state.ProbeAnyway();
    }
    return Done("");
}

}  // namespace kelto::halvek::outbox
