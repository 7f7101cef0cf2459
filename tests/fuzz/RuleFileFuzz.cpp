#include "companions/rules/RuleFile.h"
#include "companions/rules/Script.h"
#include "companions/rules/ScriptRun.h"

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string_view>
#include <utility>

namespace kelto::companion::rules {

namespace {

/** Ends the process, and so fails the run, if something does not hold. */
void Require(bool condition, const char* text) {
    if (!condition) {
        std::cerr << "does not hold: " << text << std::endl;
        std::abort();
    }
}

void CheckFinding(const RuleFinding& finding, std::string_view text) {
    unsigned lines = 1;
    for (const char character : text) {
        lines += character == '\n' ? 1 : 0;
    }
    Require(finding.place.line >= 1 && finding.place.line <= lines, "a finding is in a line of the file");
    Require(finding.place.column >= 1, "a finding is in a column");
    Require(!finding.text.empty(), "a finding says something");
}

/** Events of the types and keys that the seeds speak of. */
void Run(std::vector<Rule> rules, std::string_view scriptText) {
    constexpr size_t mostPosts = 100000;
    try {
        const Script script = Script::Parse("script", scriptText.substr(0, 2000));
        const size_t ruleCount = rules.size();
        ScriptRun run(std::move(rules));
        run.Run(script);
        Require(ruleCount > 8 || run.All().size() < mostPosts, "no rules lead to a loop");
    } catch (const ScriptError&) {
    }
}

}  // namespace

}  // namespace kelto::companion::rules

/** Whatever stands in a file of rules, its findings have places; and rules without findings can be run. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kelto::companion;
    using namespace kelto::companion::rules;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const size_t turn = text.find("\n---\n");
    const std::string_view fileText = text.substr(0, turn);
    RuleFile file(ConfigFile("rules.conf", fileText));
    for (const RuleFinding& finding : file.findings) {
        CheckFinding(finding, fileText);
    }
    if (file.findings.empty() && turn != std::string_view::npos && file.rules.size() <= 8) {
        Run(std::move(file.rules), text.substr(turn + 5));
    }
    return 0;
}
