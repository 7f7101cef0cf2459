#include "companions/outbox/TroubleNews.h"

#include "companions/common/DaemonSettings.h"
#include "companions/common/PostRefusal.h"
#include "companions/common/PostedEvent.h"
#include "companions/outbox/FieldText.h"
#include "companions/outbox/Log.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <utility>

namespace kelto::halvek::outbox {

using companion::DaemonSettings;
using companion::EventPipe;
using companion::PostedEvent;

namespace {

// In milliseconds.
constexpr int64_t leastDistance = int64_t{60} * 60'000;
constexpr int64_t pipePatience = 60'000;
constexpr size_t longestText = 500;

/** Whatever a server has answered must not become another event. */
std::string OneLine(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char byte) { return byte < 0x20 || byte == 0x7f; }, '?');
    return text.substr(0, longestText);
}

bool IsInTrouble(const TargetEntry& target) {
    return target.state.GetKind() != TargetState::Kind::Ok;
}

}  // namespace

void TroubleNews::Load(Targets& targets) {
    std::ostringstream text;
    if (const std::ifstream file(path); file) {
        text << file.rdbuf();
    }
    Episode* episode = nullptr;
    for (const auto& [key, value] : FieldText::Parse(text.str()).value_or(FieldText::Fields())) {
        if (key == "target") {
            episode = &episodes[value];
            episode->isTold = true;
            targets[value].state.Resume("it was in trouble before a restart");
        } else if (key == "told" && episode != nullptr) {
            episode->toldAt = FieldText::Number(value).value_or(INT64_MIN);
        }
    }
}

/** In RAM, as the counts are. */
void TroubleNews::Save() const {
    std::string text;
    for (const auto& [name, episode] : episodes) {
        if (episode.isTold) {
            FieldText::Append(text, "target", name);
            FieldText::Append(text, "told", std::to_string(episode.toldAt));
        }
    }
    const std::string temporary = path + ".new";
    std::ofstream file(temporary);
    file << text;
    file.close();
    if (file) {
        static_cast<void>(std::rename(temporary.c_str(), path.c_str()));
    }
}

int64_t TroubleNews::Tell(const Targets& targets, int64_t now) {
    for (const auto& [name, target] : targets) {
        if (IsInTrouble(target)) {
            episodes.try_emplace(name);
        }
    }
    int64_t next = INT64_MAX;
    for (auto entry = episodes.begin(); entry != episodes.end();) {
        const auto& name = entry->first;
        Episode& episode = entry->second;
        const auto target = targets.find(name);
        const bool isInTrouble = target != targets.end() && IsInTrouble(target->second);
        const bool mayBegin = episode.toldAt == INT64_MIN || now - episode.toldAt >= leastDistance;
        if (isInTrouble != episode.isTold && (episode.isTold || mayBegin)) {
            const bool isPosted =
                now >= nextTry &&
                (isInTrouble ? Post(troubleType, name, target->second.state.Reason()) : Post(recoveredType, name, {}));
            if (isPosted) {
                episode.toldAt = isInTrouble ? now : episode.toldAt;
                episode.isTold = isInTrouble;
                Save();
            } else {
                nextTry = now >= nextTry ? now + pipePatience : nextTry;
                next = std::min(next, nextTry);
            }
        }
        if (isInTrouble && !episode.isTold && !mayBegin) {
            next = std::min(next, episode.toldAt + leastDistance);
        }
        const bool isOver = !isInTrouble && !episode.isTold && now - episode.toldAt >= leastDistance;
        entry = isOver ? episodes.erase(entry) : std::next(entry);
    }
    return next;
}

bool TroubleNews::Post(const char* type, const std::string& target, const std::string& reason) {
    PostedEvent event(type);
    event.Set("target", OneLine(target));
    if (!reason.empty()) {
        event.Set("reason", OneLine(reason));
    }
    if (pipe.Post(event) == EventPipe::Outcome::Posted) {
        hasPipeTrouble = false;
        return true;
    }
    if (!std::exchange(hasPipeTrouble, true)) {
        Log::Warning(std::string(type) + " is not told to the daemon: " + pipe.Text());
    }
    return false;
}

std::string TroubleNews::MailingHandler(const std::string& settingsPath) {
    const DaemonSettings::Groups groups = DaemonSettings::Read(settingsPath);
    std::set<std::string> sources;
    for (const auto& [name, keys] : groups) {
        const auto type = keys.find("Type");
        if (type != keys.end() && (type->second == troubleType || type->second == recoveredType)) {
            sources.insert(name);
        }
    }
    for (const auto& [name, keys] : groups) {
        const auto type = keys.find("Type");
        const auto ids = groups.find(name + "/SourceIds");
        if (type == keys.end() || type->second != "Email" || ids == groups.end()) {
            continue;
        }
        if (std::any_of(ids->second.begin(), ids->second.end(),
                        [&](const auto& id) { return sources.contains(id.second); })) {
            return name;
        }
    }
    return {};
}

}  // namespace kelto::halvek::outbox
