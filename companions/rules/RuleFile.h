#pragma once

#include "companions/common/ConfigFile.h"
#include "companions/rules/Rule.h"
#include "companions/rules/RuleFinding.h"

#include <string>
#include <vector>

namespace kelto::companion::rules {

/** The rules of a file, and all that is wrong with it. With findings, the rules are not to be used. Any thread. */
struct RuleFile {
    static constexpr const char* defaultPath = "/etc/halvek-rules/rules.conf";

    explicit RuleFile(const ConfigFile& file);

    /** In the order of the file. */
    std::vector<Rule> rules;
    /** Where each of them begins. */
    std::vector<ConfigPlace> places;
    /** In the order of the file. */
    std::vector<RuleFinding> findings;
};

}  // namespace kelto::companion::rules
