#pragma once

#include "companions/ctl/Finding.h"
#include "companions/ctl/Model.h"
#include "companions/ctl/Store.h"
#include "companions/ctl/StorePositions.h"
#include "kelto/core/IniFile.h"

#include <deque>
#include <optional>
#include <string>
#include <string_view>

namespace kelto::halvek::ctl {

/**
 * One store under examination: what stands in it and where, what the daemon makes of it, and what has been found so
 * far.
 *
 * Each check looks at it and adds its findings; a finding that is returned may be completed until the end. One thread.
 */
class Examination {
public:
    explicit Examination(const Store& examined);
    Examination(const Examination&) = delete;
    Examination& operator=(const Examination&) = delete;

    const Store& store;
    const StorePositions positions;
    /** All groups; of a malformed store those that can be made out. */
    const core::IniFile ini;
    /** Nothing of a malformed store, which the daemon refuses. */
    std::optional<ModelAnswers> model;

    /** At the value that holds; at the group, or where the store begins, if there is none. */
    Finding& AtValue(std::string_view id, const std::string& group, const std::string& key, std::string text);
    /** At the key of the value that holds. */
    Finding& AtKey(std::string_view id, const std::string& group, const std::string& key, std::string text);
    /** At the first header of the group, or of the first one below it. */
    Finding& AtGroup(std::string_view id, const std::string& group, std::string text);
    /** At the first byte that counts of a line. */
    Finding& AtLine(std::string_view id, const StorePositions::Line& line, std::string text);
    Finding& At(std::string_view id, Position position, std::string text);

    /** A key's value; nothing if it is not there. */
    const std::string* Value(const std::string& group, const std::string& key) const;

    std::deque<Finding>& Findings() { return findings; }

private:
    Position PlaceOf(const std::string& group) const;

    std::deque<Finding> findings;
};

/** The value as it may stand in a text: in quotes of its own, and shortened. */
std::string Quoted(std::string_view value);

}  // namespace kelto::halvek::ctl
