#include "companions/ctl/PostingRules.h"

#include "companions/common/ConfigFile.h"
#include "companions/ctl/Failure.h"
#include "companions/ctl/Terminal.h"
#include "companions/rules/RuleFile.h"

#include <system_error>

namespace kelto::halvek::ctl {

namespace {

using companion::ConfigFile;
using companion::rules::Rule;
using companion::rules::RuleFile;

/** Nothing if there are no rules, or none for this user to read. */
std::optional<ConfigFile> Load(const std::optional<std::string>& path) {
    try {
        return ConfigFile::Load(path.value_or(RuleFile::defaultPath));
    } catch (const std::system_error& error) {
        if (path) {
            throw Failure(std::string("cannot read the rules ") + error.what());
        }
        return std::nullopt;
    }
}

}  // namespace

const char* PostingRule::Kind() const {
    switch (rule.kind) {
        case Rule::Kind::Count:
            return "count";
        case Rule::Kind::Then:
            return "then";
        case Rule::Kind::Unless:
            return "unless";
        case Rule::Kind::Each:
            break;
    }
    return "each";
}

bool PostingRule::Concerns(const EventQuestion& event) const {
    companion::ReceivedEvent received;
    received.type = event.type;
    received.properties.assign(event.properties.begin(), event.properties.end());
    if (received.Find("eventType") == nullptr) {
        received.properties.emplace_back("eventType", event.type);
    }
    return rule.when.Matches(received) || (rule.kind == Rule::Kind::Then && rule.second.Matches(received));
}

PostingRules PostingRules::Read(const std::optional<std::string>& path) {
    PostingRules rules;
    const std::optional<ConfigFile> file = Load(path);
    if (!file) {
        return rules;
    }
    const RuleFile read(*file);
    if (!read.findings.empty()) {
        Terminal::Complain("the rules have mistakes, see halvek-rules check " + file->Path());
    }
    for (size_t number = 0; number < read.rules.size(); ++number) {
        if (!read.rules[number].when.type.empty() && !read.rules[number].post.empty()) {
            const companion::ConfigPlace& place = read.places[number];
            rules.all.push_back({read.rules[number], {file->Path(), place.line, place.column}});
        }
    }
    return rules;
}

std::set<std::string> PostingRules::PostedTypes() const {
    std::set<std::string> types;
    for (const PostingRule& one : all) {
        types.insert(one.rule.post);
    }
    return types;
}

std::set<std::string> PostingRules::HeardTypes() const {
    std::set<std::string> types;
    for (const PostingRule& one : all) {
        types.insert(one.rule.when.type);
        types.insert(one.rule.second.type);
    }
    types.erase("");
    return types;
}

}  // namespace kelto::halvek::ctl
