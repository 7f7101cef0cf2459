#pragma once

#include "env/SettingsKeys.h"
#include "monitor/KnownSettings.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelto::halvek::ctl {

/** The name of a source's or handler's group, or of one below it, taken apart. */
struct ItemName {
    /** "Events/Source#1" of "Events/Source#1/Timer". */
    std::string item;
    /** "Timer" of it; empty for the item's own group. */
    std::string below;

    /** Nothing for a group that is neither a source's nor a handler's. */
    static std::optional<ItemName> Parse(const std::string& group);

    bool IsSource() const;
};

/** What the daemon's tables say of groups and keys. One thread. */
class KnownNames {
public:
    static const KnownNames& Instance();

    /** The row of the group; null if nobody reads such a group. The last answer is kept, for line after line asks for
     * the same group: one thread. */
    const KnownGroup* FindGroup(const std::string& group) const;

    /** The row of the key; null if nobody reads it there. */
    static const SettingsKey* FindKey(const KnownGroup& group, const std::string& key);

    /** The keys that a handler of that type, or a source, has in the group below its own. Empty for an unknown type. */
    static SettingsKeyList KeysOfSource(const std::string& type);
    static SettingsKeyList KeysOfHandler(const std::string& type);

    static std::vector<std::string> SourceTypeNames();
    static std::vector<std::string> HandlerTypeNames();

    /** All groups that could be meant by this name, with the item's name filled in. */
    std::vector<std::string> Candidates(const std::string& group) const;

    /** Groups in which this key means something, as patterns. */
    std::vector<std::string> GroupsWithKey(const std::string& key) const;

    const std::vector<KnownGroup>& Groups() const { return groups; }

private:
    KnownNames();

    const KnownGroup* LookUpGroup(const std::string& group) const;

    std::vector<KnownGroup> groups;
    mutable std::string lastGroup;
    mutable const KnownGroup* lastFound = nullptr;
};

}  // namespace kelto::halvek::ctl
