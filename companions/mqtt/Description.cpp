#include "companions/mqtt/Description.h"

#include "companions/mqtt/Discovery.h"
#include "companions/mqtt/Uptime.h"

#include <utility>

namespace kelto::halvek::mqtt {

Description::Description(const Settings& wanted, const CameraFacts& own, const EventQueue& events, const Topics& names,
                         std::set<std::string>& components)
    : settings(wanted), facts(own), queue(events), topics(names), described(components) {}

void Description::TakeLeft(const ReceivedMessage& message) {
    if (message.isRetained) {
        left = Discovery::ComponentsIn(message.payload);
    }
}

bool Description::IsDue() const {
    if (!toldAt) {
        return true;
    }
    const std::optional<Milliseconds> next = NextAt();
    return next && Uptime() >= *next;
}

std::optional<Description::Milliseconds> Description::NextAt() const {
    if (!toldAt || !settings.hasDiscovery || toldVersion == queue.SeenVersion()) {
        return std::nullopt;
    }
    return *toldAt + pause;
}

std::vector<Message> Description::Tell() {
    std::vector<Message> messages;
    toldVersion = queue.SeenVersion();
    toldAt = Uptime();
    if (!settings.hasDiscovery) {
        if (!described.empty()) {
            messages.push_back(Message::State(topics.Discovery(), ""));
        }
        described.clear();
        return messages;
    }
    const CameraFacts known = Known();
    std::set<std::string> removed = std::exchange(described, Discovery::Components(settings, known));
    // Where the settings cannot be read, what an earlier run has seen may come again.
    if (!facts.types.empty()) {
        removed.merge(left);
    }
    left.clear();
    std::erase_if(removed, [this](const std::string& name) { return described.count(name) != 0; });
    if (!removed.empty()) {
        messages.push_back(
            Message::State(topics.Discovery(), Discovery::Payload(settings, known, removed), Content::Json));
    }
    messages.push_back(Message::State(topics.Discovery(), Discovery::Payload(settings, known), Content::Json));
    return messages;
}

CameraFacts Description::Known() const {
    CameraFacts known = facts;
    known.types.merge(queue.SeenTypes());
    known.types.insert(settings.types.begin(), settings.types.end());
    known.types.insert(settings.post.begin(), settings.post.end());
    for (const AlarmState& alarm : queue.Alarms()) {
        known.alarms.insert(alarm.name);
    }
    return known;
}

}  // namespace kelto::halvek::mqtt
