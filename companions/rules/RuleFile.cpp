#include "companions/rules/RuleFile.h"

#include "companions/rules/RuleReader.h"

#include <algorithm>
#include <set>

namespace kelto::companion::rules {

namespace {

bool IsRule(const ConfigGroup& group) {
    return group.name == "Rule" || group.name.starts_with("Rule ") || group.name.starts_with("Rule\t");
}

}  // namespace

RuleFile::RuleFile(const ConfigFile& file) {
    for (const ConfigFault& fault : file.Faults()) {
        findings.push_back({"HK8001", fault.place, fault.text});
    }
    std::set<std::string> names;
    for (const ConfigGroup& group : file.Groups()) {
        if (!IsRule(group)) {
            findings.push_back({"HK8002", group.place, "a group of this file is a rule: [Rule NAME]"});
            continue;
        }
        rules.push_back(RuleReader(group, findings).Read());
        places.push_back(group.place);
        if (!names.insert(rules.back().name).second) {
            findings.push_back({"HK8004", group.place, "there is a rule " + rules.back().name + " already"});
        }
    }
    std::ranges::stable_sort(findings, {}, &RuleFinding::place);
}

}  // namespace kelto::companion::rules
