#include "companions/ctl/Wiring.h"

#include "companions/ctl/Failure.h"
#include "companions/ctl/HandlerName.h"
#include "env/SettingsReader.h"
#include "handler/FilterChain.h"
#include "handler/FolderEventHandler.h"
#include "handler/RelayEventHandler.h"
#include "kelto/osa/Exception.h"
#include "monitor/EventMonitor.h"
#include "source/AlarmEventSource.h"
#include "source/EventServerSource.h"
#include "source/ParkEventSource.h"
#include "source/TimerEventSource.h"

#include <algorithm>
#include <array>
#include <set>

namespace kelto::halvek::ctl {

namespace {

using Group = core::IniFile::Group;

std::string ValueOf(const Group& settings, const char* key, const std::string& absent) {
    const auto value = settings.find(key);
    return value == settings.end() ? absent : value->second;
}

/** As the daemon reads it; what it cannot read stands as it is, and a finding says so. */
std::string NumberOf(const Group& settings, const IntegerKey& key) {
    try {
        return std::to_string(SettingsReader(settings).Read(key));
    } catch (const osa::Exception&) {
        return ValueOf(settings, key.name, std::to_string(key.absent));
    }
}

std::string BankOf(const Group& settings) {
    return ValueOf(settings, handler::RelayEventHandler::keys.Text("BankName").name, "the first local bank");
}

std::string SourceDetail(const ModelSource& source) {
    if (source.type == "Timer") {
        return "every " + NumberOf(source.settings, source::TimerEventSource::keys.Integer("Interval.sec")) + " s";
    }
    if (source.type == "Alarm") {
        return "input " + NumberOf(source.settings, source::AlarmEventSource::keys.Integer("Index")) + " of " +
               BankOf(source.settings);
    }
    if (source.type == "Park") {
        return "at rest for " + NumberOf(source.settings, source::ParkEventSource::keys.Integer("DwellTime.sec")) +
               " s";
    }
    if (source.group == EventMonitor::serverGroup) {
        const TextKey& path = source::EventServerSource::keys.Text("Path");
        return "posted in " + ValueOf(source.settings, path.name, path.absent);
    }
    return source.type == "MsgBus" || source.type == "Analytics" ? "alerts from the bus" : "";
}

std::string Target(const ModelHandler& handler) {
    const Group& settings = handler.settings;
    const auto text = [&](const char* key) { return ValueOf(settings, key, ""); };
    if (handler.type == "Relay") {
        return "relay " + NumberOf(settings, handler::RelayEventHandler::keys.Integer("Index")) + " of " +
               BankOf(settings);
    }
    if (handler.type == "Preset" || handler.type == "Tour") {
        return (handler.type == "Preset" ? "preset " : "tour ") + text("Id");
    }
    if (handler.type == "Folder") {
        return "folder " + text("DestinationPath");
    }
    if (handler.type == "Ftp") {
        return "ftp://" + text("Server") + ValueOf(settings, "BasePath", "/");
    }
    if (handler.type == "Email") {
        return "mail to " + text("To");
    }
    return handler.type == "Extern" ? "pipes in /run/halvek" : "";
}

std::string FilterText(const Group& settings) {
    std::string text;
    for (const SettingsKey& key : FilterChain::keys.List()) {
        const auto value = settings.find(std::string(NameOf(key)));
        if (value != settings.end()) {
            text.append(text.empty() ? "" : "  ").append(NameOf(key)).append("=").append(value->second);
        }
    }
    return text;
}

std::string RemarkOn(const ModelAnswers& model, const std::string& group) {
    const auto record = std::find_if(model.records.rbegin(), model.records.rend(),
                                     [&](const ModelRecord& one) { return one.group == group; });
    if (record == model.records.rend()) {
        return {};
    }
    // What goes wrong in a load is told behind where it went wrong, which is known here.
    const std::string text = record->text.substr(std::min(record->text.find_first_not_of('\t'), record->text.size()));
    const size_t end = text.find(": ");
    return text.find("Error Load") == std::string::npos || end == std::string::npos ? text : text.substr(end + 2);
}

WiringSource SourceOf(const ModelAnswers& model, const ModelSource& source, bool isThere) {
    WiringSource shown{.group = source.group, .type = source.type, .detail = SourceDetail(source), .remark = {}};
    shown.isPosted = source.isPosted;
    shown.isLeftOut = !isThere && !source.isPosted;
    if (shown.isLeftOut) {
        shown.remark = RemarkOn(model, source.group);
    }
    if (shown.isPosted) {
        shown.detail = "posted";
    }
    return shown;
}

WiringHandler HandlerOf(const ModelAnswers& model, const ModelHandler& handler) {
    WiringHandler shown{.group = handler.group,
                        .type = handler.type,
                        .target = Target(handler),
                        .filter = FilterText(handler.settings),
                        .remark = RemarkOn(model, handler.group),
                        .open = {}};
    shown.isLeftOut = !handler.isLoaded;
    shown.isConfigured = handler.isConfigured;
    if (shown.remark.empty() && !handler.isLoaded) {
        shown.remark = "it has no SourceIds";
    } else if (shown.remark.empty() && !handler.isConfigured) {
        shown.remark = "not configured: each event fails here, and for all behind it";
    }
    return shown;
}

/** What handlers name and is no source group: any other group with a type, which stands for posted events; or none. */
void AddOtherSources(const ModelAnswers& model, std::vector<WiringSource>& sources) {
    const auto add = [&](const std::string& group, const std::string& type) {
        const bool isKnown =
            std::any_of(sources.begin(), sources.end(), [&](const WiringSource& one) { return one.group == group; });
        if (!isKnown) {
            sources.push_back({.group = group, .type = type, .detail = "posted", .remark = "there is no such source"});
            sources.back().isPosted = !type.empty();
            sources.back().isLeftOut = type.empty();
        }
    };
    for (const ModelEdge& edge : model.edges) {
        for (const std::string& id : edge.postedIds) {
            add(id, edge.eventId);
        }
    }
    for (const ModelHandler& handler : model.handlers) {
        for (const auto& [key, id] : handler.sourceIds) {
            add(id, "");
        }
    }
}

/** A posted event comes from the group that stands for it, whoever delivers it. */
void AddEdge(const ModelAnswers& model, const ModelEdge& edge, std::vector<WiringEdge>& edges) {
    if (model.FindHandler(edge.handler) == nullptr) {
        return;
    }
    const auto isKnown = [&](const std::string& from) {
        return std::any_of(edges.begin(), edges.end(), [&](const WiringEdge& known) {
            return known.from == from && known.to == edge.handler && known.order == edge.order;
        });
    };
    const std::vector<std::string> sources =
        edge.eventId.empty() ? std::vector<std::string>{edge.source} : edge.postedIds;
    for (const std::string& source : sources) {
        if (!isKnown(source)) {
            edges.push_back({source, edge.handler, edge.order});
        }
    }
}

/** What a handler names and nothing comes from. */
void AddLostEdges(const ModelHandler& handler, std::vector<WiringEdge>& edges) {
    for (const auto& [key, id] : handler.sourceIds) {
        const bool isThere = std::any_of(edges.begin(), edges.end(), [&, &from = id](const WiringEdge& edge) {
            return edge.from == from && edge.to == handler.group;
        });
        if (!isThere) {
            edges.push_back({id, handler.group, 0});
        }
    }
}

/** The type of the events that come from a source; empty for one that gives none of a type of its own. */
std::string EventTypeOf(const WiringSource& source) {
    if (source.isLeftOut || source.group == EventMonitor::serverGroup) {
        return {};
    }
    return source.type == "MsgBus" || source.type == "Analytics" ? "AnalyticsAlert" : source.type;
}

WiringRule RuleOf(const PostingRule& posting, const std::vector<WiringSource>& sources) {
    WiringRule shown{.name = posting.rule.name,
                     .kind = posting.Kind(),
                     .when = posting.rule.when.type,
                     .second = posting.rule.second.type,
                     .post = posting.rule.post,
                     .place = posting.place};
    for (const WiringSource& source : sources) {
        const std::string type = EventTypeOf(source);
        if (!type.empty() && (type == shown.when || type == shown.second)) {
            shown.from.push_back(source.group);
        }
        if (source.isPosted && type == shown.post) {
            shown.to.push_back(source.group);
        }
    }
    return shown;
}

}  // namespace

std::string WiringRule::Text() const {
    if (kind == "then" || kind == "unless") {
        return when + " " + kind + " " + second + " => " + post;
    }
    return when + (kind == "count" ? ", counted" : "") + " => " + post;
}

void Wiring::AddRules(const PostingRules& postingRules) {
    for (const PostingRule& posting : postingRules.all) {
        rules.push_back(RuleOf(posting, sources));
        for (const PostingRule& other : postingRules.all) {
            if (other.rule.post == posting.rule.when.type || other.rule.post == posting.rule.second.type) {
                rules.back().fromRules.push_back(other.rule.name);
            }
        }
        for (WiringSource& source : sources) {
            if (source.isPosted && source.type == posting.rule.post) {
                source.detail.append(source.detail == "posted" ? " by the rule " : ", ").append(posting.rule.name);
            }
        }
    }
}

Wiring Wiring::Of(const ModelAnswers& model) {
    Wiring wiring;
    for (const ModelSource& source : model.sources) {
        wiring.sources.push_back(SourceOf(model, source, true));
    }
    for (const ModelSource& source : model.absentSources) {
        wiring.sources.push_back(SourceOf(model, source, false));
    }
    AddOtherSources(model, wiring.sources);
    std::set<std::string> alwaysOn;
    for (const ModelEdge& edge : model.edges) {
        AddEdge(model, edge, wiring.edges);
        if (model.FindHandler(edge.handler) == nullptr) {
            alwaysOn.insert(edge.handler);
        }
    }
    wiring.alwaysOn.assign(alwaysOn.begin(), alwaysOn.end());
    for (const ModelHandler& handler : model.handlers) {
        wiring.handlers.push_back(HandlerOf(model, handler));
        AddLostEdges(handler, wiring.edges);
        for (const HandlerSchedule& schedule : model.schedules.front()) {
            if (schedule.handler == handler.group) {
                wiring.handlers.back().open = schedule.open;
            }
        }
    }
    return wiring;
}

void Wiring::KeepOnly(const std::string& name) {
    const auto isGroup = [&](const auto& item) { return item.group == name || HandlerName::Short(item.group) == name; };
    if (std::none_of(sources.begin(), sources.end(), isGroup) &&
        std::none_of(handlers.begin(), handlers.end(), isGroup)) {
        throw UsageError("the settings have no source or handler " + name);
    }
    const std::string group =
        HandlerName::Short(name) == name && !name.starts_with("Applications/") ? HandlerName::Group(name) : name;
    std::erase_if(edges, [&](const WiringEdge& edge) { return edge.from != group && edge.to != group; });
    std::set<std::string> kept = {group};
    for (const WiringEdge& edge : edges) {
        kept.insert(edge.from);
        kept.insert(edge.to);
    }
    std::erase_if(sources, [&](const WiringSource& source) { return kept.count(source.group) == 0; });
    std::erase_if(handlers, [&](const WiringHandler& handler) { return kept.count(handler.group) == 0; });
    std::erase_if(rules, [&](WiringRule& rule) {
        for (std::vector<std::string>* const groups : {&rule.from, &rule.to}) {
            std::erase_if(*groups, [&](const std::string& one) { return kept.count(one) == 0; });
        }
        return rule.from.empty() && rule.to.empty();
    });
}

void Wiring::Mark(const std::deque<Finding>& findings) {
    for (const Finding& finding : findings) {
        if (!finding.group.empty()) {
            marks.push_back({finding.group, finding.entry->id, SeverityName(finding.severity), finding.text});
        }
    }
}

std::vector<const WiringEdge*> Wiring::EdgesFrom(const std::string& source) const {
    std::vector<const WiringEdge*> found;
    for (const WiringEdge& edge : edges) {
        if (edge.from == source) {
            found.push_back(&edge);
        }
    }
    std::stable_sort(found.begin(), found.end(), [](const WiringEdge* one, const WiringEdge* other) {
        return one->order != 0 && (other->order == 0 || one->order < other->order);
    });
    return found;
}

std::vector<const WiringMark*> Wiring::MarksOf(const std::string& group) const {
    const std::string within = group + "/";
    std::vector<const WiringMark*> found;
    for (const WiringMark& mark : marks) {
        if (mark.group == group || mark.group.starts_with(within)) {
            found.push_back(&mark);
        }
    }
    return found;
}

std::string Wiring::SeverityOf(const std::string& group) const {
    const std::vector<const WiringMark*> found = MarksOf(group);
    for (const char* const severity : {"error", "warning", "note"}) {
        if (std::any_of(found.begin(), found.end(),
                        [&](const WiringMark* mark) { return mark->severity == severity; })) {
            return severity;
        }
    }
    return {};
}

}  // namespace kelto::halvek::ctl
