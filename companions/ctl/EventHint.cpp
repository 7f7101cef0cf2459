#include "companions/ctl/EventHint.h"

#include "companions/ctl/HandlerName.h"
#include "companions/ctl/Nearest.h"

#include <algorithm>
#include <set>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

/** What the events of a source are called; empty for posted ones, which have names of their own. */
std::string EventOf(const ModelSource& source) {
    if (source.type == "Analytics" || source.type == "MsgBus") {
        return "AnalyticsAlert";
    }
    return source.type == "Timer" || source.type == "Park" || source.type == "Alarm" ? source.type : "";
}

std::vector<std::string> KnownEvents(const ModelAnswers& model) {
    std::set<std::string> known;
    for (const ModelSource& source : model.sources) {
        known.insert(EventOf(source));
    }
    for (const ModelEdge& edge : model.edges) {
        known.insert(edge.eventId);
    }
    known.erase("");
    return {known.begin(), known.end()};
}

/** The source of that name, as people call it. */
const ModelSource* FindNamed(const std::string& name, const ModelAnswers& model) {
    for (const auto* const sources : {&model.sources, &model.absentSources}) {
        for (const ModelSource& source : *sources) {
            if (source.group == name || HandlerName::Short(source.group) == name) {
                return &source;
            }
        }
    }
    return nullptr;
}

std::string Joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

}  // namespace

std::optional<std::string> EventHint::For(const EventQuestion& event, const ModelAnswers& model) {
    const std::vector<std::string> known = KnownEvents(model);
    const bool isKnown = std::find(known.begin(), known.end(), event.type) != known.end();
    if (isKnown && event.type == "Alarm" && event.properties.count("alarmIndex") == 0) {
        return "an Alarm without alarmIndex is one that is posted; those of the camera's inputs have it";
    }
    if (isKnown || event.type == "MotionDetection") {
        return std::nullopt;
    }
    if (const ModelSource* const source = FindNamed(event.type, model)) {
        return event.type + " is a source; its events are called " + source->type;
    }
    const auto sameWord = std::find_if(known.begin(), known.end(), [&](const std::string& one) {
        return Nearest::IsEqualButForCase(one, event.type);
    });
    const std::optional<std::string> nearest =
        sameWord != known.end() ? std::optional(*sameWord) : Nearest::Find(event.type, known);
    return "nothing in these settings waits for " + event.type +
           (nearest ? "; did you mean " + *nearest + "?" : "; it knows " + Joined(known));
}

}  // namespace kelto::halvek::ctl
