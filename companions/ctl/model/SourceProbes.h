#pragma once

#include "companions/ctl/model/Ledger.h"
#include "companions/ctl/model/Unasked.h"
#include "source/EventSource.h"

#include <map>
#include <memory>
#include <set>
#include <string>

namespace kelto::halvek {
class HalvekEnv;
}

namespace kelto::halvek::ctl {

/** Makes the daemon's sources as probes, which fire when they are told to. */
class SourceProbes {
public:
    /** @param loadedIni what is being loaded; like the ledger it must outlive this object and the sources */
    SourceProbes(Ledger& probeLedger, const core::IniFile& loadedIni) : ledger(probeLedger), ini(loadedIni) {}

    /**
     * What EventMonitor has instead of CreateEventSource.
     *
     * @param typeName the very text that stands in the settings: its place tells the group
     * @throws Failure for a type without a probe
     */
    std::unique_ptr<EventSource> Create(const std::string& typeName, HalvekEnv* env);

    /** Whether the daemon knows no source for the type of a group, so that it stands for posted events. */
    bool HasNoSourceOfItsOwn(const std::string& group) const { return withoutSource.count(group) != 0; }

private:
    std::string GroupOf(const std::string& typeName, const HalvekEnv* env);
    void RegisterComponents(HalvekEnv* env);

    Ledger& ledger;
    const core::IniFile& ini;
    /** Groups by the place of their "Type"; empty before the first source. */
    std::map<const std::string*, std::string> groupsByType;
    std::set<std::string> withoutSource;
    /** Owned by the environment's component. */
    UnaskedAlarms* alarms = nullptr;
};

}  // namespace kelto::halvek::ctl
