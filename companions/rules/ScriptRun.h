#pragma once

#include "companions/rules/Engine.h"
#include "companions/rules/Script.h"

#include <deque>
#include <string>
#include <vector>

namespace kelto::companion::rules {

/**
 * Runs a script on a clock of its own, with the engine of the service. What is posted comes back as an event, as it
 * does from the daemon. For one script, on one thread.
 */
class ScriptRun : private Engine::Outlet {
public:
    /** Something that came out. */
    struct Came {
        /** Since the beginning. */
        Rule::Milliseconds at;
        ScriptEvent event;
    };

    /** Something that should not be. */
    struct Failure {
        unsigned line;
        std::string text;
    };

    explicit ScriptRun(std::vector<Rule> rules) { engine.SetRules(std::move(rules)); }

    void Run(const Script& script);

    const std::vector<Came>& All() const { return all; }
    const std::vector<Failure>& Failures() const { return failures; }

private:
    bool Post(const Rule& rule, const PostedEvent& event, const std::string& block) override;
    void Refuse(const Rule& rule, const std::string& why) override;

    void LetPass(Rule::Milliseconds delay);
    void TakeWaiting();
    void Compare(const Script::Step& step, size_t from);

    Engine engine{*this};
    Rule::Milliseconds now{0};
    /** The script's event and what comes back, the next one first. */
    std::deque<ScriptEvent> waiting;
    std::vector<Came> all;
    std::vector<Failure> failures;
    /** Of the line that is being run. */
    std::vector<std::string> refusals;
};

}  // namespace kelto::companion::rules
