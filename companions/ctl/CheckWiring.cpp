#include "companions/ctl/Checks.h"
#include "companions/ctl/Examination.h"
#include "companions/ctl/HandlerView.h"
#include "companions/ctl/KnownNames.h"
#include "companions/ctl/Nearest.h"
#include "companions/ctl/ValueForm.h"
#include "env/SettingsReader.h"
#include "kelto/core/StringUtil.h"
#include "kelto/osa/Exception.h"
#include "monitor/EventMonitor.h"

#include <algorithm>
#include <cctype>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* leftOut = "Error LoadHandlers: ";
constexpr const char* alwaysThere = "Applications/halvek/MsgBus";

std::vector<std::string> SourceGroups(const Examination& examination) {
    std::list<std::string> groups;
    EventMonitor::EnumerateGroups(examination.ini, EventMonitor::sourcePrefix, groups);
    std::vector<std::string> names(groups.begin(), groups.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

/** What can be named: sources, the event server and the source of alerts. */
std::vector<std::string> Nameable(const Examination& examination) {
    std::vector<std::string> names = SourceGroups(examination);
    names.emplace_back(EventMonitor::serverGroup);
    names.emplace_back(alwaysThere);
    return names;
}

/** What a name comes down to for somebody who is not sure of its signs: "eventssource1". */
std::string LettersAndDigits(const std::string& name) {
    std::string plain;
    for (const unsigned char c : name) {
        if (std::isalnum(c) != 0) {
            plain += static_cast<char>(std::tolower(c));
        }
    }
    return plain;
}

/** The name that was meant by an id that is none. */
std::optional<std::string> NearestId(const Examination& examination, const std::string& id) {
    const std::vector<std::string> names = Nameable(examination);
    const std::string bare = ValueForm::Bare(id);
    for (const std::string& candidate :
         {bare, "Events/" + bare, "Events/Source#" + bare, bare.substr(0, bare.rfind('/'))}) {
        const auto meant = std::find_if(names.begin(), names.end(), [&](const std::string& name) {
            return LettersAndDigits(name) == LettersAndDigits(candidate);
        });
        if (meant != names.end()) {
            return *meant;
        }
    }
    // A digit makes another name, so that the nearest one is not likely to be meant.
    const std::optional<std::string> nearest = Nearest::Find(bare, names);
    const auto number = [](const std::string& name) { return name.substr(std::min(name.find('#'), name.size())); };
    return nearest && number(*nearest) == number(bare) ? nearest : std::nullopt;
}

std::string WhatIsLost(const core::IniFile::Group& ids, const std::string& key) {
    const auto behind = std::distance(ids.upper_bound(key), ids.end());
    return behind == 0 ? "" : "; the " + std::to_string(behind) + " named behind it are lost too";
}

/** Several ids in one value, as somebody may write them. */
std::optional<std::string> OneIdPerKey(const Examination& examination, const std::string& value) {
    const size_t separator = value.find_first_of(",; ");
    if (separator == std::string::npos || !NearestId(examination, value.substr(0, separator))) {
        return std::nullopt;
    }
    std::string fix;
    size_t number = 0;
    for (size_t at = 0; at < value.size();) {
        const size_t end = std::min(value.find_first_of(",; ", at), value.size());
        const std::string id = value.substr(at, end - at);
        if (!id.empty()) {
            fix += (fix.empty() ? "" : "\n") + std::to_string(number++) + "=" + NearestId(examination, id).value_or(id);
        }
        at = end + 1;
    }
    return fix;
}

void ReportDangling(Examination& examination, const HandlerView& handler, const std::string& key, const std::string& id,
                    const std::string& why) {
    const std::optional<std::string> several = OneIdPerKey(examination, id);
    const std::optional<std::string> nearest = several ? std::nullopt : NearestId(examination, id);
    std::string text = examination.ini.GetGroups().count(id) != 0 ? "[" + id + "] has no Type"
                       : several ? "a key names one source; give each of these a key of its own"
                                 : "there is no group [" + id + "]";
    text += nearest ? "; did you mean " + *nearest + "?" : "";
    Finding& finding =
        examination.AtValue("HK3003", handler.SourceIdsGroup(), key, text + WhatIsLost(handler.SourceIds(), key));
    finding.fix = several ? several : nearest;
    finding.foretells = leftOut + why;
}

bool IsBuiltIn(const std::string& type) {
    const std::vector<std::string> known = KnownNames::SourceTypeNames();
    return type != "System" && std::find(known.begin(), known.end(), type) != known.end();
}

/** An id of a group that is no source of its own, so that the handler waits for posted events of its type. */
void CheckPostedId(Examination& examination, const HandlerView& handler, const std::string& key, const std::string& id,
                   const std::string& type) {
    const std::string group = handler.SourceIdsGroup();
    if (!id.starts_with(EventMonitor::sourcePrefix) ||
        id.find('/', std::string_view(EventMonitor::sourcePrefix).size()) != std::string::npos) {
        examination.AtValue("HK3015", group, key,
                            "[" + id + "] is no source: the handler waits for posted events of type " + Quoted(type));
    } else if (IsBuiltIn(type)) {
        examination.AtValue("HK3031", group, key,
                            "[" + id + "] is left out: the handler waits for posted events of type " + Quoted(type));
    }
    if (examination.model->FindSource(EventMonitor::serverGroup) == nullptr) {
        Finding& finding = examination.AtValue("HK3030", group, key,
                                               "the handler waits for posted events, and there is no event server");
        finding.foretells = leftOut + id + " needs the event server " + EventMonitor::serverGroup;
    }
}

void CheckId(Examination& examination, const HandlerView& handler, const std::string& key, const std::string& id) {
    try {
        const std::string& type = SettingsReader::Read(examination.ini, id, EventMonitor::typeKeys.Text("Type"));
        CheckPostedId(examination, handler, key, id, type);
    } catch (const osa::Exception& exception) {
        ReportDangling(examination, handler, key, id, exception.what());
    }
}

bool IsOfAlerts(const Examination& examination, const std::string& source) {
    const ModelSource* const found = examination.model->FindSource(source);
    return source == alwaysThere || (found != nullptr && (found->type == "Analytics" || found->type == "MsgBus"));
}

/** The key that names the source, or a source of the posted type, for the last time. */
std::string LastKeyOf(const Examination& examination, const HandlerView& handler, const ModelEdge& edge) {
    std::string last;
    for (const auto& [key, id] : handler.SourceIds()) {
        const std::string* const type = examination.Value(id, "Type");
        if (id == edge.source || (!edge.eventId.empty() && type != nullptr && *type == edge.eventId)) {
            last = key;
        }
    }
    return last;
}

std::string WhyTwice(const std::vector<ModelEdge>& edges, const ModelEdge& edge, const Examination& examination) {
    const auto others = [&](auto matches) { return std::count_if(edges.begin(), edges.end(), matches); };
    if (others([&](const ModelEdge& one) { return one.source == edge.source && one.eventId == edge.eventId; }) > 1) {
        return edge.eventId.empty() ? "[" + edge.source + "] stands here twice"
                                    : "two of these sources are of type " + Quoted(edge.eventId);
    }
    if (!edge.eventId.empty() &&
        others([&](const ModelEdge& one) { return one.source == edge.source && one.eventId.empty(); }) > 0) {
        return "all posted events reach this handler already";
    }
    if (IsOfAlerts(examination, edge.source) && edge.source != alwaysThere &&
        others([](const ModelEdge& one) { return one.source == alwaysThere; }) > 0) {
        return "[" + edge.source + "] has the same alerts as " + std::string(alwaysThere);
    }
    return "";
}

/** Of these another finding says that they act twice. */
std::set<std::string> FoundTwice(const Examination& examination) {
    std::list<std::string> groups;
    EventMonitor::EnumerateGroups(examination.ini, EventMonitor::handlerPrefix, groups);
    std::set<std::string> seen;
    std::set<std::string> twice;
    for (const std::string& group : groups) {
        if (!seen.insert(group).second) {
            twice.insert(group);
        }
    }
    return twice;
}

void CheckTwice(Examination& examination, const HandlerView& handler, const std::vector<ModelEdge>& edges) {
    std::set<std::string> told;
    for (const ModelEdge& edge : edges) {
        const std::string why = WhyTwice(edges, edge, examination);
        if (!why.empty() && told.insert(why).second) {
            examination.AtValue("HK3017", handler.SourceIdsGroup(), LastKeyOf(examination, handler, edge),
                                why + ": the handler acts twice on one event");
        }
    }
}

void ReportNoSources(Examination& examination, const HandlerView& handler) {
    const std::string group = handler.SourceIdsGroup();
    const bool isThere = examination.positions.Find(group).has_value();
    Finding& finding = examination.AtGroup(
        "HK3002", isThere ? group : handler.Group(),
        isThere ? "no source is named here: the handler is left out, and nothing says so"
                : "there is no group [" + group + "]: the handler is left out, and nothing says so");
    const std::vector<std::string> sources = SourceGroups(examination);
    finding.fix = (isThere ? "" : "[" + group + "]\n") + "0=" + (sources.empty() ? alwaysThere : sources.front());
}

void CheckUnusedSources(Examination& examination, const std::vector<HandlerView>& handlers) {
    std::set<std::string> named;
    for (const HandlerView& handler : handlers) {
        for (const auto& [key, id] : handler.SourceIds()) {
            named.insert(id);
        }
    }
    for (const std::string& group : SourceGroups(examination)) {
        if (named.count(group) == 0 && examination.Value(group, "Type") != nullptr) {
            examination.AtGroup("HK2010", group, "no handler names this source");
        }
    }
}

}  // namespace

void CheckWiring(Examination& examination) {
    const std::vector<HandlerView> handlers = HandlerView::All(examination);
    std::map<std::string, std::vector<ModelEdge>> edges;
    for (const ModelEdge& edge : examination.model->edges) {
        edges[edge.handler].push_back(edge);
    }
    std::set<std::string> sources;
    for (const ModelSource& source : examination.model->sources) {
        sources.insert(source.group);
    }
    const std::set<std::string> foundTwice = FoundTwice(examination);
    for (const HandlerView& handler : handlers) {
        if (handler.SourceIds().empty()) {
            ReportNoSources(examination, handler);
        }
        for (const auto& [key, id] : handler.SourceIds()) {
            if (sources.count(id) == 0) {
                CheckId(examination, handler, key, id);
            }
        }
        if (foundTwice.count(handler.Group()) == 0) {
            CheckTwice(examination, handler, edges[handler.Group()]);
        }
    }
    CheckUnusedSources(examination, handlers);
}

}  // namespace kelto::halvek::ctl
