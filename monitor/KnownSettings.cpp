#include "monitor/KnownSettings.h"

#include "handler/HandlerKeys.h"
#include "handler/SnapshotPath.h"
#include "monitor/EventMonitor.h"
#include "source/EventServerSource.h"
#include "source/SourceFactory.h"

namespace kelto::halvek {

namespace {

constexpr SettingsKeys logKeys{TextKey{.name = "LogLevel", .absent = "Information"}, TextKey{.name = "LogLevel.*"}};
constexpr SettingsKeys sourceIds{TextKey{.name = "*"}};

std::vector<SettingsKey> Joined(SettingsKeyList first, SettingsKeyList second = {}) {
    std::vector<SettingsKey> keys(first.begin(), first.end());
    keys.insert(keys.end(), second.begin(), second.end());
    return keys;
}

}  // namespace

std::vector<KnownGroup> KnownSettings() {
    const std::string server = EventMonitor::serverGroup;
    const std::string source = std::string(EventMonitor::sourcePrefix) + "*";
    const std::string handler = std::string(EventMonitor::handlerPrefix) + "*";
    std::vector<KnownGroup> groups = {
        {"Applications/halvek", Joined(logKeys.List())},
        {server, Joined(EventMonitor::typeKeys.List())},
        {server + "/" + EventMonitor::serverType, Joined(source::EventServerSource::keys.List())},
        {handler::snapshotGroup, Joined(handler::snapshotKeys.List())},
        {source, Joined(EventMonitor::typeKeys.List())},
        {handler, Joined(EventMonitor::typeKeys.List(), KeysOfEveryHandler())},
        {handler + "/" + EventMonitor::sourceIdsGroup, Joined(sourceIds.List())},
    };
    for (const SourceType& type : SourceTypes()) {
        groups.push_back({source + "/" + type.name, Joined(type.keys)});
    }
    for (const HandlerKeys& type : KeysOfHandlers()) {
        groups.push_back({handler + "/" + type.type, Joined(type.keys, KeysOfEveryHandler())});
    }
    return groups;
}

}  // namespace kelto::halvek
