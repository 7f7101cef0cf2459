#include "companions/rules/ScriptRun.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace kelto::companion::rules {

namespace {

bool Fits(const ScriptEvent& wanted, const ScriptEvent& came) {
    return wanted.type == came.type && std::ranges::all_of(wanted.properties, [&](const auto& property) {
               return std::ranges::find(came.properties, property) != came.properties.end();
           });
}

/**
 * Finds for each wanted event one of its own among those that came, in whatever order.
 *
 * An expectation may name few properties and so fit several: one that finds its only event taken asks whoever has it to
 * take another.
 */
class Assignment {
public:
    Assignment(const std::vector<std::pair<unsigned, ScriptEvent>>& allWanted, const ScriptRun::Came* first,
               size_t count)
        : wanted(allWanted), came(first), takers(count) {
        for (size_t one = 0; one < wanted.size(); ++one) {
            std::vector<bool> asked(count, false);
            if (!FindFor(one, asked)) {
                missing.push_back(one);
            }
        }
    }

    /** Those for which there was none. */
    const std::vector<size_t>& Missing() const { return missing; }
    bool IsTaken(size_t event) const { return takers[event].has_value(); }

private:
    bool FindFor(size_t one, std::vector<bool>& asked) {
        for (size_t event = 0; event < takers.size(); ++event) {
            if (asked[event] || !Fits(wanted[one].second, came[event].event)) {
                continue;
            }
            asked[event] = true;
            if (!takers[event] || FindFor(*takers[event], asked)) {
                takers[event] = one;
                return true;
            }
        }
        return false;
    }

    const std::vector<std::pair<unsigned, ScriptEvent>>& wanted;
    const ScriptRun::Came* came;
    std::vector<std::optional<size_t>> takers;
    std::vector<size_t> missing;
};

}  // namespace

void ScriptRun::Run(const Script& script) {
    for (const Script::Step& step : script.steps) {
        const size_t before = all.size();
        LetPass(step.delay);
        if (step.event) {
            waiting.push_back(*step.event);
            TakeWaiting();
        }
        engine.Expire(now);
        TakeWaiting();
        Compare(step, before);
    }
}

void ScriptRun::LetPass(Rule::Milliseconds delay) {
    const Rule::Milliseconds target = now + delay;
    // What is due at the very time of an event comes after it: an event that comes by then has come.
    for (auto end = engine.NextEnd(); end && *end < target; end = engine.NextEnd()) {
        now = std::max(now, *end);
        engine.Expire(now);
        TakeWaiting();
    }
    now = target;
}

void ScriptRun::TakeWaiting() {
    for (; !waiting.empty(); waiting.pop_front()) {
        ReceivedEvent received;
        received.type = waiting.front().type;
        received.properties = waiting.front().properties;
        // As the daemon sets it.
        if (received.Find("eventType") == nullptr) {
            received.properties.emplace_back("eventType", received.type);
        }
        engine.Take(received, now);
    }
}

bool ScriptRun::Post(const Rule& /*rule*/, const PostedEvent& event, const std::string& /*block*/) {
    all.push_back({now, {event.Type(), event.Properties()}});
    waiting.push_back(all.back().event);
    return true;
}

void ScriptRun::Refuse(const Rule& rule, const std::string& why) {
    refusals.push_back("the rule " + rule.name + " could not post: " + why);
}

void ScriptRun::Compare(const Script::Step& step, size_t from) {
    for (std::string& refusal : std::exchange(refusals, {})) {
        failures.push_back({step.line, std::move(refusal)});
    }
    const size_t count = all.size() - from;
    const Assignment assignment(step.expected, all.data() + from, count);
    for (const size_t one : assignment.Missing()) {
        const auto& [line, event] = step.expected[one];
        failures.push_back({line, "this did not come out: " + event.Text()});
    }
    for (size_t event = 0; event < count; ++event) {
        if (!assignment.IsTaken(event)) {
            failures.push_back({step.line, "this came out, and is not expected: " + all[from + event].event.Text()});
        }
    }
    std::ranges::stable_sort(failures, {}, &Failure::line);
}

}  // namespace kelto::companion::rules
