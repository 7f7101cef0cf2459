#include "companions/ctl/KnownNames.h"

#include "handler/HandlerKeys.h"
#include "monitor/EventMonitor.h"
#include "source/SourceFactory.h"

#include <fnmatch.h>

#include <algorithm>

namespace kelto::halvek::ctl {

namespace {

/** What may be the user's name of a source or handler in a name that is written wrongly. */
std::string NameIn(const std::string& group) {
    const size_t hash = group.find('#');
    if (hash != std::string::npos) {
        return group.substr(hash + 1, group.find('/', hash) - hash - 1);
    }
    const size_t digit = group.find_first_of("0123456789");
    return digit == std::string::npos ? "1" : group.substr(digit, group.find_first_not_of("0123456789", digit) - digit);
}

std::string Filled(const std::string& pattern, const std::string& name) {
    const size_t star = pattern.find('*');
    return star == std::string::npos ? pattern : pattern.substr(0, star) + name + pattern.substr(star + 1);
}

}  // namespace

std::optional<ItemName> ItemName::Parse(const std::string& group) {
    for (const std::string prefix : {EventMonitor::sourcePrefix, EventMonitor::handlerPrefix}) {
        if (group.starts_with(prefix)) {
            const size_t slash = group.find('/', prefix.size());
            return ItemName{group.substr(0, slash), slash == std::string::npos ? "" : group.substr(slash + 1)};
        }
    }
    return std::nullopt;
}

bool ItemName::IsSource() const {
    return item.starts_with(EventMonitor::sourcePrefix);
}

KnownNames::KnownNames() : groups(KnownSettings()) {}

const KnownNames& KnownNames::Instance() {
    static const KnownNames instance;
    return instance;
}

const KnownGroup* KnownNames::FindGroup(const std::string& group) const {
    if (group != lastGroup || group.empty()) {
        lastFound = LookUpGroup(group);
        lastGroup = group;
    }
    return lastFound;
}

const KnownGroup* KnownNames::LookUpGroup(const std::string& group) const {
    const auto found = std::find_if(groups.begin(), groups.end(), [&](const KnownGroup& known) {
        return fnmatch(known.pattern.c_str(), group.c_str(), FNM_PATHNAME) == 0;
    });
    return found == groups.end() ? nullptr : &*found;
}

const SettingsKey* KnownNames::FindKey(const KnownGroup& group, const std::string& key) {
    const auto found = std::find_if(group.keys.begin(), group.keys.end(), [&](const SettingsKey& known) {
        return fnmatch(std::string(NameOf(known)).c_str(), key.c_str(), 0) == 0;
    });
    return found == group.keys.end() ? nullptr : &*found;
}

SettingsKeyList KnownNames::KeysOfSource(const std::string& type) {
    for (const SourceType& known : SourceTypes()) {
        if (type == known.name) {
            return known.keys;
        }
    }
    return {};
}

SettingsKeyList KnownNames::KeysOfHandler(const std::string& type) {
    for (const HandlerKeys& known : KeysOfHandlers()) {
        if (type == known.type) {
            return known.keys;
        }
    }
    return {};
}

std::vector<std::string> KnownNames::SourceTypeNames() {
    std::vector<std::string> names;
    for (const SourceType& type : SourceTypes()) {
        names.emplace_back(type.name);
    }
    return names;
}

std::vector<std::string> KnownNames::HandlerTypeNames() {
    std::vector<std::string> names;
    for (const HandlerKeys& type : KeysOfHandlers()) {
        names.emplace_back(type.type);
    }
    return names;
}

std::vector<std::string> KnownNames::Candidates(const std::string& group) const {
    const std::string name = NameIn(group);
    std::vector<std::string> candidates;
    for (const KnownGroup& known : groups) {
        candidates.push_back(Filled(known.pattern, name));
    }
    return candidates;
}

std::vector<std::string> KnownNames::GroupsWithKey(const std::string& key) const {
    std::vector<std::string> found;
    for (const KnownGroup& known : groups) {
        const bool has = std::any_of(known.keys.begin(), known.keys.end(),
                                     [&](const SettingsKey& one) { return NameOf(one) == key; });
        if (has) {
            found.push_back(known.pattern);
        }
    }
    return found;
}

}  // namespace kelto::halvek::ctl
