#include "companions/ctl/HandlerView.h"

#include "monitor/EventMonitor.h"

#include <algorithm>
#include <list>
#include <set>
#include <utility>

namespace kelto::halvek::ctl {

namespace {

std::string TypeOf(const Examination& examination, const std::string& group) {
    const std::string* const type = examination.Value(group, "Type");
    return type == nullptr ? "" : *type;
}

}  // namespace

HandlerView::HandlerView(const Examination& examined, std::string handlerGroup)
    : examination(examined), group(std::move(handlerGroup)), type(TypeOf(examined, group)) {}

std::vector<HandlerView> HandlerView::All(const Examination& examination) {
    std::list<std::string> groups;
    EventMonitor::EnumerateGroups(examination.ini, EventMonitor::handlerPrefix, groups);
    std::vector<HandlerView> handlers;
    std::set<std::string> seen;
    for (std::string& group : groups) {
        if (seen.insert(group).second) {
            handlers.emplace_back(examination, std::move(group));
        }
    }
    return handlers;
}

std::string HandlerView::MainGroup() const {
    std::string below = group + "/" + type;
    return examination.positions.Find(below) ? below : group;
}

std::string HandlerView::GroupOf(const std::string& key) const {
    std::string below = group + "/" + type;
    if (examination.Value(below, key) != nullptr) {
        return below;
    }
    return examination.Value(group, key) != nullptr ? group : MainGroup();
}

std::string HandlerView::Value(const std::string& key) const {
    const std::string* const value = examination.Value(GroupOf(key), key);
    return value == nullptr ? "" : *value;
}

bool HandlerView::Has(const std::string& key) const {
    return examination.Value(GroupOf(key), key) != nullptr;
}

std::string HandlerView::SourceIdsGroup() const {
    return group + "/" + EventMonitor::sourceIdsGroup;
}

const core::IniFile::Group& HandlerView::SourceIds() const {
    return examination.ini.FindGroup(SourceIdsGroup());
}

bool HandlerView::IsWired() const {
    return examination.model && std::any_of(examination.model->edges.begin(), examination.model->edges.end(),
                                            [&](const ModelEdge& edge) { return edge.handler == group; });
}

}  // namespace kelto::halvek::ctl
