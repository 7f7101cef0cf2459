#pragma once

#include "companions/ctl/CheckedStore.h"
#include "companions/ctl/HandlerView.h"

#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/** Something that an action needs, and whether it is there. */
struct TryNeed {
    /** "program", "snapshot", "folder", "host", or the id of a finding. */
    std::string name;
    bool isThere;
    /** Escaped. */
    std::string text;
};

/** What a handler's action needs of this machine, as the daemon's user; looked at, and nothing done. */
class TryNeeds {
public:
    /** @param checked with findings of this machine, see CheckOptions::here */
    static std::vector<TryNeed> Of(const CheckedStore& checked, const HandlerView& handler);
};

}  // namespace kelto::halvek::ctl
