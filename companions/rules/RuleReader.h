#pragma once

#include "companions/common/ConfigFile.h"
#include "companions/rules/Rule.h"
#include "companions/rules/RuleFinding.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelto::companion::rules {

/** Makes a rule of one group of a file, and says what is wrong with it. For one group, on one thread. */
class RuleReader {
public:
    /** @param allFindings gets what is wrong */
    RuleReader(const ConfigGroup& ruleGroup, std::vector<RuleFinding>& allFindings)
        : group(ruleGroup), findings(allFindings) {}

    /** The rule, which is one to be used only if nothing was wrong with it. */
    Rule Read();

private:
    void ReadName();
    void ReadEntry(const ConfigEntry& entry);
    bool ReadWhere(const ConfigEntry& entry);
    void ReadType(const ConfigEntry& entry, std::string& type);
    void ReadCount(const ConfigEntry& entry);
    void ReadTime(const ConfigEntry& entry, Rule::Milliseconds& time);
    void ReadSame(const ConfigEntry& entry);
    void ReadPost(const ConfigEntry& entry);
    void ReadSet(const ConfigEntry& entry, const std::string& key);
    void TakeKeys(const ValueTemplate& value);

    void FindKind();
    void CheckPartners(const char* key, const char* partner);
    void CheckEventId();
    void CheckSize();

    bool Has(std::string_view key) const { return group.Find(key) != nullptr; }
    bool HasWhere(std::string_view prefix) const;
    void AddAtKey(const char* id, const ConfigEntry& entry, std::string text);
    void AddAtValue(const char* id, const ConfigEntry& entry, std::string text);
    void AddAtGroup(const char* id, std::string text);

    const ConfigGroup& group;
    std::vector<RuleFinding>& findings;
    Rule rule;
};

}  // namespace kelto::companion::rules
