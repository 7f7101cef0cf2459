#pragma once

#include "companions/ctl/Examination.h"

#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/** One handler group of a store, and where its keys stand: in the group of its type, or else in its own. One thread. */
class HandlerView {
public:
    HandlerView(const Examination& examined, std::string handlerGroup);

    /** All handlers of a store, each once, in the order in which the daemon loads them. */
    static std::vector<HandlerView> All(const Examination& examination);

    const std::string& Group() const { return group; }
    /** Empty without one. */
    const std::string& Type() const { return type; }

    /** The group in which the key's value stands that holds; that of the type if there is none. */
    std::string GroupOf(const std::string& key) const;

    /** The value; empty if the key is not there. */
    std::string Value(const std::string& key) const;

    /** Whether the key is there. */
    bool Has(const std::string& key) const;

    /** Where to point at what is missing: the group of the type if there is one. */
    std::string MainGroup() const;

    /** The ids that it names, by their keys, in the daemon's order. */
    const core::IniFile::Group& SourceIds() const;
    std::string SourceIdsGroup() const;

    /** Whether events reach it. */
    bool IsWired() const;

private:
    const Examination& examination;
    const std::string group;
    const std::string type;
};

}  // namespace kelto::halvek::ctl
