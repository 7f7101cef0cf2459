#include "companions/rules/RuleReader.h"

#include "companions/common/PostRefusal.h"
#include "companions/common/PostedEvent.h"
#include "companions/common/Utf8.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <initializer_list>
#include <stdexcept>
#include <utility>

namespace kelto::companion::rules {

namespace {

constexpr size_t longestName = 64;
/** Each counted event takes memory for as long as it counts. */
constexpr uint32_t mostCount = 10000;
/** Ten years, in seconds. */
constexpr double longestTime = 315360000;

/** What a rule sets by itself, and what the daemon sets in every event that it is posted. */
constexpr std::array<std::string_view, 3> ownKeys = {"rule", "ruleChain", "suppressed"};
constexpr std::array<std::string_view, 4> daemonKeys = {"FormattedTime", "Timestamp", "eventId", "eventType"};

/** Whether a text is UTF-8 without control characters, but for tabs. */
bool IsPlainText(std::string_view text) {
    while (!text.empty()) {
        const Utf8Character character = FirstCharacter(text);
        if (!character.isValid || (character.IsControl() && character.code != '\t')) {
            return false;
        }
        text.remove_prefix(character.length);
    }
    return true;
}

bool IsPropertyKey(std::string_view key) {
    const char first = key.empty() ? '\0' : key.front();
    return (first >= '0' && first <= '9') || (first >= 'A' && first <= 'Z') || (first >= 'a' && first <= 'z');
}

std::string_view Trim(std::string_view text) {
    const size_t begin = std::min(text.find_first_not_of(" \t"), text.size());
    return text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

}  // namespace

Rule RuleReader::Read() {
    ReadName();
    for (const ConfigEntry& entry : group.entries) {
        const auto first = std::ranges::find(group.entries, entry.key, &ConfigEntry::key);
        if (&*first != &entry) {
            AddAtKey("HK8006", entry,
                     entry.key + " stands in line " + std::to_string(first->keyPlace.line) + " already");
        }
        ReadEntry(entry);
    }
    FindKind();
    if (!Has("When")) {
        AddAtGroup("HK8007", "the rule has no When");
    }
    if (!Has("Post")) {
        AddAtGroup("HK8008", "the rule has no Post");
    }
    CheckEventId();
    CheckSize();
    return rule;
}

void RuleReader::ReadName() {
    rule.name = Trim(std::string_view(group.name).substr(std::string_view("Rule").size()));
    if (rule.name.empty()) {
        AddAtGroup("HK8003", "the rule has no name: [Rule NAME]");
    } else if (rule.name.size() > longestName) {
        AddAtGroup("HK8003", "the rule's name has more than " + std::to_string(longestName) + " bytes");
    } else if (rule.name.find(',') != std::string::npos || !IsPlainText(rule.name)) {
        AddAtGroup("HK8003", "a rule's name is plain text without a comma, which separates names in ruleChain");
    }
}

void RuleReader::ReadEntry(const ConfigEntry& entry) {
    const std::string& key = entry.key;
    if (!IsPlainText(key) || !IsPlainText(entry.value)) {
        AddAtValue("HK8014", entry, "control characters, or bytes that are no UTF-8");
    } else if (key == "When") {
        ReadType(entry, rule.when.type);
    } else if (key == "Then" || key == "Unless") {
        ReadType(entry, rule.second.type);
    } else if (key == "Count") {
        ReadCount(entry);
    } else if (key == "Within.sec" || key == "After.sec") {
        ReadTime(entry, rule.span);
    } else if (key == "HoldOff.sec") {
        ReadTime(entry, rule.holdOff);
    } else if (key == "Same") {
        ReadSame(entry);
    } else if (key == "Post") {
        ReadPost(entry);
    } else if (key.starts_with("Set.")) {
        ReadSet(entry, key.substr(4));
    } else if (!ReadWhere(entry)) {
        AddAtKey("HK8005", entry, "unknown key " + key);
    }
}

bool RuleReader::ReadWhere(const ConfigEntry& entry) {
    for (const auto& [prefix, pattern] : {std::pair<std::string_view, EventPattern*>{"Where.", &rule.when},
                                          {"Then.Where.", &rule.second},
                                          {"Unless.Where.", &rule.second}}) {
        if (!entry.key.starts_with(prefix) || entry.key.size() == prefix.size()) {
            continue;
        }
        try {
            pattern->where.emplace_back(entry.key.substr(prefix.size()), Condition(entry.value));
        } catch (const std::invalid_argument& error) {
            AddAtValue("HK8011", entry, error.what());
        }
        return true;
    }
    return false;
}

void RuleReader::ReadType(const ConfigEntry& entry, std::string& type) {
    type = entry.value;
    if (type.empty()) {
        AddAtValue("HK8007", entry, entry.key + " names no type of events");
    } else if (type.find(']') != std::string::npos) {
        AddAtValue("HK8007", entry, "no type of events has a \"]\" in it");
    }
}

void RuleReader::ReadCount(const ConfigEntry& entry) {
    const char* const end = entry.value.data() + entry.value.size();
    const auto [stop, error] = std::from_chars(entry.value.data(), end, rule.count);
    if (error != std::errc() || stop != end || rule.count < 1 || rule.count > mostCount) {
        AddAtValue("HK8009", entry, "Count is a number from 1 to " + std::to_string(mostCount));
    }
}

void RuleReader::ReadTime(const ConfigEntry& entry, Rule::Milliseconds& time) {
    const std::optional<double> seconds = ParseNumber(entry.value);
    if (!seconds || *seconds < 0 || *seconds > longestTime) {
        AddAtValue("HK8010", entry, entry.key + " is a number of seconds from 0 to ten years");
        return;
    }
    time = Rule::Milliseconds(std::llround(*seconds * 1000));
}

void RuleReader::ReadSame(const ConfigEntry& entry) {
    std::string_view rest = entry.value;
    while (true) {
        const size_t comma = rest.find(',');
        const std::string_view key = Trim(rest.substr(0, comma));
        if (key.empty()) {
            AddAtValue("HK8013", entry, "Same is a list of properties: KEY,KEY");
            return;
        }
        if (std::ranges::find(rule.same, key) != rule.same.end()) {
            AddAtValue("HK8013", entry, "Same names " + std::string(key) + " twice");
            return;
        }
        rule.same.emplace_back(key);
        if (comma == std::string_view::npos) {
            return;
        }
        rest.remove_prefix(comma + 1);
    }
}

void RuleReader::ReadPost(const ConfigEntry& entry) {
    rule.post = entry.value;
    if (rule.post.empty()) {
        AddAtValue("HK8008", entry, "Post names no type of events");
    } else if (rule.post.find("${") != std::string::npos) {
        AddAtValue("HK8008", entry, "Post is a fixed text: the daemon remembers every type that it has ever seen");
    } else if (rule.post.find(']') != std::string::npos) {
        AddAtValue("HK8008", entry, "no type of events has a \"]\" in it");
    }
}

void RuleReader::ReadSet(const ConfigEntry& entry, const std::string& key) {
    if (!IsPropertyKey(key)) {
        AddAtKey("HK8012", entry, "the key of a property begins with a letter or digit");
        return;
    }
    if (std::ranges::find(ownKeys, key) != ownKeys.end()) {
        AddAtKey("HK8012", entry, "a rule sets " + key + " by itself");
        return;
    }
    if (std::ranges::find(daemonKeys, key) != daemonKeys.end()) {
        AddAtKey("HK8012", entry, "the daemon sets " + key + " by itself");
        return;
    }
    try {
        rule.set.emplace_back(key, ValueTemplate(entry.value));
        TakeKeys(rule.set.back().second);
    } catch (const std::invalid_argument& error) {
        AddAtValue("HK8012", entry, error.what());
    }
}

void RuleReader::TakeKeys(const ValueTemplate& value) {
    for (const std::string& key : value.Keys()) {
        if (std::ranges::find(rule.taken, key) == rule.taken.end()) {
            rule.taken.push_back(key);
        }
    }
}

void RuleReader::FindKind() {
    const int kinds = (Has("Count") ? 1 : 0) + (Has("Then") ? 1 : 0) + (Has("Unless") ? 1 : 0);
    if (kinds > 1) {
        AddAtGroup("HK8015", "a rule has one of Count, Then and Unless");
        return;
    }
    rule.kind = Has("Count")    ? Rule::Kind::Count
                : Has("Then")   ? Rule::Kind::Then
                : Has("Unless") ? Rule::Kind::Unless
                                : Rule::Kind::Each;
    CheckPartners("Count", "Within.sec");
    CheckPartners("Then", "Within.sec");
    CheckPartners("Unless", "After.sec");
    if (Has("Within.sec") && !Has("Count") && !Has("Then")) {
        AddAtKey("HK8015", *group.Find("Within.sec"), "Within.sec belongs to Count or Then");
    }
    if (Has("After.sec") && !Has("Unless")) {
        AddAtKey("HK8015", *group.Find("After.sec"), "After.sec belongs to Unless");
    }
    for (const char* const key : {"Then", "Unless"}) {
        if (!Has(key) && HasWhere(std::string(key) + ".Where.")) {
            AddAtGroup("HK8015", std::string(key) + ".Where without " + key);
        }
    }
}

void RuleReader::CheckPartners(const char* key, const char* partner) {
    if (const ConfigEntry* const entry = group.Find(key); entry != nullptr && !Has(partner)) {
        AddAtKey("HK8015", *entry, std::string(key) + " wants " + partner);
    }
}

void RuleReader::CheckEventId() {
    // The daemon takes the region of a posted MotionDetection for a type.
    for (const auto& [key, value] : rule.set) {
        if (rule.post == "MotionDetection" && key == "region" && !value.Keys().empty()) {
            AddAtKey("HK8016", *group.Find("Set.region"),
                     "the region of a MotionDetection is a fixed text: the daemon remembers every one");
        }
    }
}

void RuleReader::CheckSize() {
    size_t size = std::string_view("[]\n.\nrule=\nruleChain=\n").size() + rule.post.size() + 2 * rule.name.size();
    for (const auto& [key, value] : rule.set) {
        size += key.size() + value.Fill([](const std::string&) { return nullptr; }).size() + 2;
    }
    if (size > PostedEvent::mostBytes) {
        AddAtGroup("HK8017", "what the rule posts has more than " + std::to_string(PostedEvent::mostBytes) +
                                 " bytes, whatever the event");
    }
}

bool RuleReader::HasWhere(std::string_view prefix) const {
    return std::ranges::any_of(group.entries, [&](const auto& entry) { return entry.key.starts_with(prefix); });
}

void RuleReader::AddAtKey(const char* id, const ConfigEntry& entry, std::string text) {
    findings.push_back({id, entry.keyPlace, std::move(text)});
}

void RuleReader::AddAtValue(const char* id, const ConfigEntry& entry, std::string text) {
    findings.push_back({id, entry.valuePlace, std::move(text)});
}

void RuleReader::AddAtGroup(const char* id, std::string text) {
    findings.push_back({id, group.place, std::move(text)});
}

}  // namespace kelto::companion::rules
