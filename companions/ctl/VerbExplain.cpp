#include "companions/ctl/VerbExplain.h"

#include "companions/ctl/EventHint.h"
#include "companions/ctl/Expectations.h"
#include "companions/ctl/Failure.h"
#include "companions/ctl/HandlerName.h"
#include "companions/ctl/JsonAnswer.h"
#include "companions/ctl/LocalTime.h"
#include "companions/ctl/OptionReader.h"
#include "companions/ctl/PostingRules.h"
#include "companions/ctl/Terminal.h"
#include "companions/ctl/VerdictReason.h"

#include <algorithm>
#include <iterator>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* help =
    "EVENT is the type: Timer, Park, AnalyticsAlert, Alarm with alarmIndex=N, or one that is posted, with its\n"
    "properties behind it. Each handler is told once, in the order of delivery: acts, or why not.\n"
    "  --at TIME     2026-11-23T09:15, by local clocks unless an offset follows (now)\n"
    "  --tests FILE  checks expectations, one per line: at 2026-11-23T09:15 Doorbell => Handler#2 !Handler#1\n"
    "Status: 0 if somebody acts, or all expectations hold; else 1.\n";

bool AnyActs(const std::vector<ModelVerdict>& verdicts) {
    return std::any_of(verdicts.begin(), verdicts.end(), [](const ModelVerdict& one) { return Acts(one.verdict); });
}

/** A place as compilers name it; empty without one. */
std::string PlaceText(const std::optional<Position>& place) {
    return place && place->IsInAFile() ? Terminal::Escape(place->file) + ":" + std::to_string(place->line) : "";
}

Terminal::Colour ColourOf(Verdict verdict) {
    switch (verdict) {
        case Verdict::Acts:
            return Terminal::Colour::Green;
        case Verdict::UnreadableRange:
            return Terminal::Colour::Yellow;
        case Verdict::NotConfigured:
        case Verdict::BehindFailing:
        case Verdict::LeftOut:
        case Verdict::NoEventPipe:
            return Terminal::Colour::Red;
        default:
            return Terminal::Colour::Faint;
    }
}

std::string Padded(std::string text, size_t width) {
    text.resize(std::max(width, text.size()), ' ');
    return text;
}

/** What rules make of the event, which the daemon then gets as one of its own. */
void AddRulesAsText(const std::vector<PostingRule>& rules, Answer& answer) {
    for (const PostingRule& posting : rules) {
        const bool isCertain = posting.rule.kind == companion::rules::Rule::Kind::Each;
        answer.AddLine("  The rule " + Terminal::Escape(posting.rule.name) + " (" + PlaceText(posting.place) + ") " +
                       (isCertain ? "posts " : "may post ") + Terminal::Escape(posting.rule.post) +
                       " for it: see halvekctl explain " + Terminal::Escape(posting.rule.post));
    }
}

void AddRulesAsJson(const std::vector<PostingRule>& rules, companion::Json& json) {
    json.Key("rules").BeginArray();
    for (const PostingRule& posting : rules) {
        json.BeginObject().Key("name").String(posting.rule.name).Key("kind").String(posting.Kind());
        json.Key("post").String(posting.rule.post);
        JsonAnswer::AddPlace(json, posting.place);
        json.EndObject();
    }
    json.EndArray();
}

std::vector<PostingRule> RulesFor(const Invocation& invocation, const EventQuestion& event) {
    std::vector<PostingRule> rules = PostingRules::Read(invocation.rules).all;
    std::erase_if(rules, [&](const PostingRule& posting) { return !posting.Concerns(event); });
    return rules;
}

/** One event and what becomes of it. */
class Explanation {
public:
    Explanation(const ModelAnswers& modelAnswers, const StorePositions& positions, const EventQuestion& question,
                const EventAnswer& eventAnswer)
        : model(modelAnswers), reason(modelAnswers, positions), event(question), answer(eventAnswer) {}

    void AddText(Answer& text) const {
        const LocalTime local(event.time);
        text.AddLine(Terminal::Coloured(Terminal::Colour::Bold, Terminal::Escape(event.type)) + PropertiesText() +
                     " at " + local.date.Weekday() + " " + local.Iso());
        const size_t width = NameWidth();
        for (const ModelVerdict& verdict : answer.handlers) {
            const std::string name = Padded(Terminal::Escape(HandlerName::Short(verdict.handler)), width);
            const std::string word = Padded(VerdictName(verdict.verdict), 16);
            text.AddLine("  " + name + "  " + Terminal::Coloured(ColourOf(verdict.verdict), word) + "  " +
                         PlaceText(reason.Place(verdict)) + "  " + reason.Text(verdict, event.time));
        }
        if (answer.handlers.empty()) {
            text.AddLine("  The settings have no handlers.");
        }
        if (AnyActs(answer.alwaysOn)) {
            text.AddLine("  The event also goes into the pipes of /run/halvek whose names fit.");
        }
    }

    void AddJson(companion::Json& json) const {
        json.Key("event").BeginObject();
        json.Key("type").String(event.type);
        json.Key("properties").BeginObject();
        for (const auto& [key, value] : event.properties) {
            json.Key(key).String(Terminal::IsSecret(key) ? "***" : value);
        }
        json.EndObject().EndObject();
        json.Key("at").String(LocalTime::Iso(event.time));
        json.Key("rows").BeginArray();
        for (const ModelVerdict& verdict : answer.handlers) {
            AddRow(json, verdict);
        }
        json.EndArray();
        json.Key("always_on").BeginArray();
        for (const ModelVerdict& verdict : answer.alwaysOn) {
            json.BeginObject().Key("type").String(verdict.handler);
            json.Key("verdict").String(VerdictName(verdict.verdict)).EndObject();
        }
        json.EndArray();
    }

    /** The verdict on a handler; null if the settings have none of that group. */
    const ModelVerdict* Find(const std::string& group) const {
        const auto found = std::find_if(answer.handlers.begin(), answer.handlers.end(),
                                        [&](const ModelVerdict& one) { return one.handler == group; });
        return found == answer.handlers.end() ? nullptr : &*found;
    }

    std::string Reason(const ModelVerdict& verdict) const { return reason.Text(verdict, event.time); }

private:
    void AddRow(companion::Json& json, const ModelVerdict& verdict) const {
        const ModelHandler* const handler = model.FindHandler(verdict.handler);
        json.BeginObject();
        json.Key("group").String(verdict.handler);
        json.Key("type").String(handler == nullptr ? "" : handler->type);
        json.Key("verdict").String(VerdictName(verdict.verdict));
        json.Key("acts").Bool(Acts(verdict.verdict));
        json.Key("source");
        verdict.source.empty() ? json.Null() : json.String(verdict.source);
        JsonAnswer::AddPlace(json, reason.Place(verdict));
        json.Key("text").String(reason.Text(verdict, event.time));
        json.Key("asks_camera").Bool(handler != nullptr && handler->asksBus);
        json.EndObject();
    }

    std::string PropertiesText() const {
        std::string text;
        for (const auto& [key, value] : event.properties) {
            text.append(" ").append(Terminal::Escape(key)).append("=").append(Terminal::ShownValue(key, value));
        }
        return text;
    }

    size_t NameWidth() const {
        size_t width = 0;
        for (const ModelVerdict& verdict : answer.handlers) {
            width = std::max(width, Terminal::Escape(HandlerName::Short(verdict.handler)).size());
        }
        return std::min<size_t>(width, 40);
    }

    const ModelAnswers& model;
    const VerdictReason reason;
    const EventQuestion& event;
    const EventAnswer& answer;
};

ExitStatus ExplainEvent(const Invocation& invocation, const StoreLocation& location, const Store& store,
                        const EventQuestion& event, Answer& answer) {
    const ModelAnswers model = AskModel({.events = {event}, .schedules = {}, .scheduleOf = {}});
    const StorePositions positions(store);
    const Explanation explanation(model, positions, event, model.events.front());
    const std::vector<PostingRule> rules = RulesFor(invocation, event);
    if (invocation.format == Format::Text) {
        explanation.AddText(answer);
        AddRulesAsText(rules, answer);
    } else {
        companion::Json json;
        JsonAnswer::Begin(json, "explain", location);
        explanation.AddJson(json);
        AddRulesAsJson(rules, json);
        answer.AddLine(json.EndObject().Text());
    }
    if (AnyActs(model.events.front().handlers)) {
        return exitYes;
    }
    if (const std::optional<std::string> hint = EventHint::For(event, model)) {
        answer.Flush();
        Terminal::Complain(*hint);
    }
    return exitNo;
}

/** One handler that an expectation names. */
struct Check {
    const Expectation* expectation;
    std::string group;
    bool shouldAct;
    /** Null if the settings have no such handler. */
    const ModelVerdict* verdict;
    std::string reason;

    bool Holds() const { return verdict != nullptr && Acts(verdict->verdict) == shouldAct; }
    const char* Name() const { return verdict == nullptr ? "missing" : VerdictName(verdict->verdict); }
};

std::vector<Check> ChecksOf(const std::vector<Expectation>& expectations, const ModelAnswers& model,
                            const StorePositions& positions) {
    std::vector<Check> checks;
    for (size_t i = 0; i < expectations.size(); ++i) {
        const Expectation& expectation = expectations[i];
        const Explanation explanation(model, positions, expectation.event, model.events[i]);
        const auto add = [&](const std::vector<std::string>& groups, bool shouldAct) {
            for (const std::string& group : groups) {
                const ModelVerdict* const verdict = explanation.Find(group);
                checks.push_back(
                    {&expectation, group, shouldAct, verdict,
                     verdict == nullptr ? "the settings have no such handler" : explanation.Reason(*verdict)});
            }
        };
        add(expectation.acting, true);
        add(expectation.notActing, false);
    }
    return checks;
}

void AddChecksAsText(const std::vector<Check>& checks, const std::string& path, Answer& answer) {
    for (const Check& check : checks) {
        if (!check.Holds()) {
            answer.AddLine(Terminal::Escape(path) + ":" + std::to_string(check.expectation->line) + ": " +
                           Terminal::Escape(HandlerName::Short(check.group)) +
                           (check.shouldAct ? " should act on " : " should not act on ") +
                           Terminal::Escape(check.expectation->event.type) + " at " +
                           LocalTime::Iso(check.expectation->event.time) + ": " + check.Name() + ", " + check.reason);
        }
    }
    const auto failed = std::count_if(checks.begin(), checks.end(), [](const Check& check) { return !check.Holds(); });
    answer.AddLine(std::to_string(checks.size()) + " expectations, " + std::to_string(failed) + " failed");
}

void AddChecksAsJson(const std::vector<Check>& checks, const StoreLocation& location, Answer& answer) {
    companion::Json json;
    JsonAnswer::Begin(json, "explain", location);
    json.Key("expectations").BeginArray();
    for (const Check& check : checks) {
        json.BeginObject();
        json.Key("line").Number(check.expectation->line);
        json.Key("event").String(check.expectation->event.type);
        json.Key("at").String(LocalTime::Iso(check.expectation->event.time));
        json.Key("group").String(check.group);
        json.Key("should_act").Bool(check.shouldAct);
        json.Key("verdict").String(check.Name());
        json.Key("holds").Bool(check.Holds());
        json.EndObject();
    }
    json.EndArray();
    answer.AddLine(json.EndObject().Text());
}

ExitStatus RunTests(const Invocation& invocation, const StoreLocation& location, const std::string& path,
                    int64_t defaultTime, Answer& answer) {
    const std::vector<Expectation> expectations = Expectation::ReadAll(path, defaultTime);
    const Store store = Store::Read(location.GetPath());
    ModelQuestions questions;
    for (const Expectation& expectation : expectations) {
        questions.events.push_back(expectation.event);
    }
    const ModelAnswers model = AskModel(questions);
    const StorePositions positions(store);
    const std::vector<Check> checks = ChecksOf(expectations, model, positions);
    if (invocation.format == Format::Text) {
        AddChecksAsText(checks, path, answer);
    } else {
        AddChecksAsJson(checks, location, answer);
    }
    return std::all_of(checks.begin(), checks.end(), [](const Check& check) { return check.Holds(); }) ? exitYes
                                                                                                       : exitNo;
}

ExitStatus RunExplain(const Invocation& invocation, Answer& answer) {
    const OptionReader options(invocation.words, {{"--at", true}, {"--tests", true}});
    const std::optional<std::string> tests = options.Value("--tests");
    if (tests && !options.Words().empty()) {
        throw UsageError("the events stand in the file of --tests");
    }
    if (!tests) {
        // For what is wrong with it whatever the settings are.
        ParseEvent(options.Words(), 0);
    }
    const StoreLocation location = StoreLocation::Use(invocation);
    const std::optional<std::string> at = options.Value("--at");
    const int64_t time = at ? LocalTime::Parse(*at) : LocalTime::Now();
    if (tests) {
        return RunTests(invocation, location, *tests, time, answer);
    }
    const Store store = Store::Read(location.GetPath());
    return ExplainEvent(invocation, location, store, ParseEvent(options.Words(), time), answer);
}

}  // namespace

const Verb verbExplain{"explain", "EVENT [KEY=VALUE...] [--at TIME] | --tests FILE",
                       "which handlers act on an event, and why not the others", help, RunExplain};

}  // namespace kelto::halvek::ctl
