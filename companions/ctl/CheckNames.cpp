#include "companions/ctl/Checks.h"
#include "companions/ctl/Examination.h"
#include "companions/ctl/KnownNames.h"
#include "companions/ctl/Nearest.h"
#include "monitor/EventMonitor.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

using Kind = StorePositions::Kind;
using Line = StorePositions::Line;

constexpr const char* id = "HK1010";
constexpr std::string_view ownPrefix = "Applications/halvek";
constexpr std::string_view eventsPrefix = "Events/";

std::string Joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

const std::string* TypeOf(const Examination& examination, const std::string& item) {
    return examination.Value(item, "Type");
}

// --- groups

/** The known name that somebody may have meant. */
std::optional<std::string> NearestGroup(const std::string& group) {
    const KnownNames& known = KnownNames::Instance();
    const std::string prefixed = std::string(eventsPrefix) + group;
    if (known.FindGroup(prefixed) != nullptr) {
        return prefixed;
    }
    return Nearest::Find(group, known.Candidates(group));
}

void ReportUnknownGroup(Examination& examination, const std::string& group) {
    const std::optional<std::string> nearest = NearestGroup(group);
    if (nearest) {
        Finding& finding = examination.AtGroup(
            id, group, "unknown group; did you mean [" + *nearest + "]? The daemon ignores this one");
        finding.fix = "[" + *nearest + "]";
        return;
    }
    Finding& finding = examination.AtGroup(id, group, "unknown group, which the daemon ignores");
    const bool isOurs = group.starts_with(ownPrefix) || group.starts_with(eventsPrefix);
    finding.severity = isOurs ? Severity::Warning : Severity::Note;
}

/** A group below a source or handler that is not the one of its type. */
void ReportUnreadBelow(Examination& examination, const std::string& group, const ItemName& name,
                       const std::string& type) {
    const std::string read = name.item + "/" + type;
    Finding& finding = examination.AtGroup(
        id, group,
        "nobody reads this group: the Type of [" + name.item + "] is " + Quoted(type) + ", not " + name.below);
    if (Nearest::Find(name.below, {type}) || Nearest::IsEqualButForCase(name.below, type)) {
        finding.fix = "[" + read + "]";
        finding.text += "; did you mean [" + read + "]?";
    }
}

bool IsSourceIdsOf(const ItemName& name) {
    return !name.IsSource() && name.below == EventMonitor::sourceIdsGroup;
}

/** Nothing is said of the group of an item without a type: the missing type is what is wrong. */
bool IsUnreadBelow(const Examination& examination, const ItemName& name) {
    const std::string* const type = TypeOf(examination, name.item);
    return !name.below.empty() && !IsSourceIdsOf(name) && type != nullptr && *type != name.below;
}

/** A posted type has no keys, so that nobody reads a group of its name. */
bool IsOfPostedType(const Examination& examination, const ItemName& name) {
    const std::string* const type = TypeOf(examination, name.item);
    const std::vector<std::string> types =
        name.IsSource() ? KnownNames::SourceTypeNames() : KnownNames::HandlerTypeNames();
    return !name.below.empty() && type != nullptr && *type == name.below &&
           std::find(types.begin(), types.end(), *type) == types.end();
}

void CheckGroupName(Examination& examination, const std::string& group) {
    const bool isKnown = KnownNames::Instance().FindGroup(group) != nullptr;
    const std::optional<ItemName> name = ItemName::Parse(group);
    if (!name) {
        if (!isKnown) {
            ReportUnknownGroup(examination, group);
        }
    } else if (IsOfPostedType(examination, *name)) {
        Finding& finding = examination.AtGroup(id, group, "nobody reads this group: there is no type " + name->below);
        finding.severity = Severity::Note;
    } else if (isKnown && IsUnreadBelow(examination, *name)) {
        ReportUnreadBelow(examination, group, *name, *TypeOf(examination, name->item));
    } else if (!isKnown) {
        ReportUnknownGroup(examination, group);
    }
}

void CheckHeaders(Examination& examination, const std::string& group) {
    const StorePositions::Lines& headers = examination.positions.Headers(group);
    const Line* previous = nullptr;
    for (const Line* header : headers) {
        if (previous != nullptr && previous->file == header->file) {
            examination.AtLine(
                "HK1008", *header,
                "the group comes twice in this file; it begins in line " + std::to_string(previous->number));
        } else {
            previous = header;
        }
    }
}

// --- keys

/** "Interval" of "Interval.sec". */
std::string WithoutUnit(std::string_view key) {
    return std::string(key.substr(0, key.find('.')));
}

std::optional<std::string> NearestKey(const std::string& key, const std::vector<std::string>& known) {
    for (const std::string& one : known) {
        if (Nearest::IsEqualButForCase(WithoutUnit(one), WithoutUnit(key)) && one != key) {
            return one;
        }
    }
    if (std::optional<std::string> nearest = Nearest::Find(key, known)) {
        return nearest;
    }
    std::vector<std::string> withoutUnits;
    std::transform(known.begin(), known.end(), std::back_inserter(withoutUnits), WithoutUnit);
    const std::optional<std::string> nearest = Nearest::Find(WithoutUnit(key), withoutUnits);
    if (!nearest) {
        return std::nullopt;
    }
    return *std::next(known.begin(),
                      std::find(withoutUnits.begin(), withoutUnits.end(), *nearest) - withoutUnits.begin());
}

/** The keys that mean something in a group, without patterns. */
std::vector<std::string> KeysIn(const Examination& examination, const std::string& group, const KnownGroup& known) {
    std::vector<std::string> names;
    for (const SettingsKey& key : known.keys) {
        if (NameOf(key).find('*') == std::string_view::npos) {
            names.emplace_back(NameOf(key));
        }
    }
    const std::optional<ItemName> name = ItemName::Parse(group);
    const std::string* const type = name && name->below.empty() ? TypeOf(examination, name->item) : nullptr;
    if (type != nullptr && !name->IsSource()) {
        for (const SettingsKey& key : KnownNames::KeysOfHandler(*type)) {
            names.emplace_back(NameOf(key));
        }
    }
    return names;
}

/** The group of this very source or handler, or another one, in which the key would be read. */
std::optional<std::string> RightGroup(const Examination& examination, const std::string& group,
                                      const std::string& key) {
    const std::vector<std::string> patterns = KnownNames::Instance().GroupsWithKey(key);
    const std::optional<ItemName> name = ItemName::Parse(group);
    if (name) {
        const std::string* const type = TypeOf(examination, name->item);
        for (const std::string& below : {type == nullptr ? std::string() : "/" + *type, std::string()}) {
            const KnownGroup* const known = KnownNames::Instance().FindGroup(name->item + below);
            if (known != nullptr && std::find(patterns.begin(), patterns.end(), known->pattern) != patterns.end()) {
                return name->item + below;
            }
        }
    }
    return patterns.empty() ? std::nullopt : std::optional(patterns.front());
}

/** The key of a source's or handler's type that somebody may have meant who wrote it one group too high. */
std::optional<std::string> NearestKeyOfType(const Examination& examination, const ItemName& name,
                                            const std::string& group, const std::string& key) {
    const std::string* const type = name.below.empty() ? TypeOf(examination, name.item) : nullptr;
    const KnownGroup* const known = type == nullptr ? nullptr : KnownNames::Instance().FindGroup(group + "/" + *type);
    return known == nullptr ? std::nullopt : NearestKey(key, KeysIn(examination, group + "/" + *type, *known));
}

/** "Events/Source#1" of "Source#1", which is how people call it. */
std::string SourceId(const std::string& written) {
    const std::string whole = "Events/" + written;
    return whole.starts_with(EventMonitor::sourcePrefix) ? whole : written;
}

void ReportUnknownKey(Examination& examination, const Line& line, const KnownGroup& known) {
    const std::string group(line.group);
    const std::string key(line.key);
    const std::vector<std::string> keys = KeysIn(examination, group, known);
    const std::optional<ItemName> name = ItemName::Parse(group);
    if (name && !name->IsSource() && name->below.empty() &&
        Nearest::IsEqualButForCase(key, EventMonitor::sourceIdsGroup)) {
        const std::string first = "0=" + SourceId(std::string(line.value));
        examination.AtLine(id, line, "SourceIds is a group of its own: [" + group + "/SourceIds] with a line " + first)
            .fix = "[" + group + "/SourceIds]\n" + first;
        return;
    }
    if (const std::optional<std::string> nearest = NearestKey(key, keys)) {
        examination.AtLine(id, line, "unknown key; did you mean " + *nearest + "? The daemon ignores this one").fix =
            *nearest;
        return;
    }
    if (const std::optional<std::string> right = RightGroup(examination, group, key)) {
        examination.AtLine(id, line, "nobody reads this key here; it belongs in [" + *right + "]").fix =
            "[" + *right + "]";
        return;
    }
    const std::optional<std::string> below = name ? NearestKeyOfType(examination, *name, group, key) : std::nullopt;
    if (below) {
        const std::string typeGroup = "[" + group + "/" + *TypeOf(examination, name->item) + "]";
        examination.AtLine(id, line, "unknown key; did you mean " + *below + " in " + typeGroup + "?").fix =
            typeGroup + "\n" + *below;
        return;
    }
    examination.AtLine(id, line,
                       "unknown key, which the daemon ignores" +
                           (keys.empty() ? "; this group has no keys" : "; here it knows " + Joined(keys)));
}

bool IsKnownKey(const Examination& examination, const Line& line, const KnownGroup& known) {
    const std::string key(line.key);
    if (KnownNames::FindKey(known, key) != nullptr) {
        return true;
    }
    const std::vector<std::string> keys = KeysIn(examination, std::string(line.group), known);
    return std::find(keys.begin(), keys.end(), key) != keys.end();
}

/** Only of groups that are read: of the others there is a finding already. */
void CheckKeyNames(Examination& examination, const Line& line) {
    const std::string group(line.group);
    const KnownGroup* const known = KnownNames::Instance().FindGroup(group);
    const std::optional<ItemName> name = ItemName::Parse(group);
    if (known == nullptr || (name && IsUnreadBelow(examination, *name))) {
        return;
    }
    if (!IsKnownKey(examination, line, *known)) {
        ReportUnknownKey(examination, line, *known);
    }
}

/** Above the last line that sets a key stand those that do not hold, unless files agree. */
void CheckOverridden(Examination& examination, const Line& line) {
    const StorePositions& positions = examination.positions;
    const Line& holding = *positions.Entries(line.group, line.key).back();
    if (&holding == &line) {
        return;
    }
    if (holding.file != line.file && holding.value == line.value) {
        return;
    }
    if (holding.file != line.file) {
        examination.AtLine("HK1020", line,
                           "this value does not hold: " + positions.FileName(holding.file) + ":" +
                               std::to_string(holding.number) + " overrides it");
        return;
    }
    Finding& finding = examination.AtLine(
        "HK1009", holding,
        "the key comes twice in its group: the value in line " + std::to_string(line.number) + " does not hold");
    finding.position = positions.KeyPosition(holding);
}

void CheckEmptyStore(Examination& examination) {
    const auto& groups = examination.ini.GetGroups();
    const bool isEmpty = std::none_of(groups.begin(), groups.end(), [](const auto& group) {
        return KnownNames::Instance().FindGroup(group.first) != nullptr;
    });
    if (isEmpty && examination.positions.FirstMalformed() == nullptr) {
        const Store& store = examination.store;
        const std::string what =
            store.files.empty() ? "the folder holds no file *.ini" : "there is no group of the daemon's in the store";
        examination.At("HK1022", StorePositions::BeginOf(store), what);
    }
}

}  // namespace

void CheckNames(Examination& examination) {
    CheckEmptyStore(examination);
    for (const auto& [group, values] : examination.ini.GetGroups()) {
        CheckGroupName(examination, group);
        CheckHeaders(examination, group);
    }
    for (const Line& line : examination.positions.AllLines()) {
        if (line.kind == Kind::Entry) {
            CheckKeyNames(examination, line);
            CheckOverridden(examination, line);
        }
    }
}

}  // namespace kelto::halvek::ctl
