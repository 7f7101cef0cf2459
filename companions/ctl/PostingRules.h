#pragma once

#include "companions/ctl/Finding.h"
#include "companions/ctl/Model.h"
#include "companions/rules/Rule.h"

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/** A rule of halvek-rules, and where it stands. */
struct PostingRule {
    companion::rules::Rule rule;
    Position place;

    /** "each", "count", "then" or "unless". */
    const char* Kind() const;

    /** Whether the event may lead to a post, by itself or with others. */
    bool Concerns(const EventQuestion& event) const;
};

/** What halvek-rules posts, so that handlers may listen to it. A plain value. */
struct PostingRules {
    /**
     * Reads a file of rules. Of one with mistakes those rules are taken that can be made out, and it says so on
     * standard error.
     *
     * @param path the installed one if it is not given, which need not be there
     * @throws Failure for a file that is given and cannot be read
     */
    static PostingRules Read(const std::optional<std::string>& path);

    /** The types of what they post, and of what they post at. */
    std::set<std::string> PostedTypes() const;
    std::set<std::string> HeardTypes() const;

    /** In the order of the file. */
    std::vector<PostingRule> all;
};

}  // namespace kelto::halvek::ctl
