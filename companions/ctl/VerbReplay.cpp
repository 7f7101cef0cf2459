#include "companions/ctl/VerbReplay.h"

#include "companions/common/ClockState.h"
#include "companions/ctl/Failure.h"
#include "companions/ctl/HandlerName.h"
#include "companions/ctl/JsonAnswer.h"
#include "companions/ctl/OptionReader.h"
#include "companions/ctl/Terminal.h"
#include "companions/ctl/recording/Replay.h"

#include <algorithm>
#include <array>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* help =
    "What the handlers of old and new settings would have done of what \"record\" has kept in FILE. Nothing acts.\n"
    "  --old PATH  settings to compare with (those of the daemon)\n"
    "  --new PATH  the other settings\n"
    "For each handler it tells how often it acted before and after, and which inputs make the difference.\n"
    "Status: 0 if both do the same, 1 if not.\n";

/** What cannot be known, as it is told. */
constexpr std::array limits = {
    "How long actions took is not known, so timers tick exactly.",
    "Alarms, alerts and rests of the head are known as far as the settings of that time had sources for them.",
    "A handler that two sources deliver one event to counts once.",
};

/** One handler in both settings. */
struct Compared {
    std::string group;
    Replay::Actions before;
    Replay::Actions after;

    bool Differs() const { return before != after; }

    /** Inputs that one of them acted on and the other did not. */
    std::vector<size_t> Inputs() const {
        std::vector<size_t> inputs;
        std::set_symmetric_difference(before.inputs.begin(), before.inputs.end(), after.inputs.begin(),
                                      after.inputs.end(), std::back_inserter(inputs));
        return inputs;
    }

    /** Timers that made one of them act more often than the other. */
    std::vector<std::string> Timers() const {
        std::vector<std::string> timers;
        for (const auto& [source, count] : before.ticks) {
            if (Ticks(after, source) != count) {
                timers.push_back(source);
            }
        }
        for (const auto& [source, count] : after.ticks) {
            if (before.ticks.count(source) == 0) {
                timers.push_back(source);
            }
        }
        return timers;
    }

    static int64_t Ticks(const Replay::Actions& actions, const std::string& source) {
        const auto found = actions.ticks.find(source);
        return found == actions.ticks.end() ? 0 : found->second;
    }
};

std::vector<Compared> Compare(const Replay& before, const Replay& after) {
    std::map<std::string, Compared> all;
    for (const auto& [group, actions] : before.handlers) {
        all[group].before = actions;
    }
    for (const auto& [group, actions] : after.handlers) {
        all[group].after = actions;
    }
    std::vector<Compared> compared;
    for (auto& [group, one] : all) {
        one.group = group;
        compared.push_back(std::move(one));
    }
    return compared;
}

Replay Play(Invocation invocation, const std::optional<std::string>& path, const Recording& recording) {
    if (path) {
        invocation.settings = path;
    }
    const StoreLocation location = StoreLocation::Use(invocation);
    return Replay::Of(recording);
}

std::string InputText(const RecordedInput& input) {
    std::string text = companion::ClockState::IsoTime(input.time) + " " + Terminal::Escape(input.type);
    for (const auto& [key, value] : input.properties) {
        text.append(" ").append(Terminal::Escape(key)).append("=").append(Terminal::ShownValue(key, value));
    }
    return text;
}

const char* YesOrNo(bool yes) {
    return yes ? "yes" : "no";
}

void AddText(const Recording& recording, const std::vector<Compared>& all, Answer& answer) {
    for (const Compared& one : all) {
        answer.AddLine(Terminal::Escape(HandlerName::Short(one.group)) + ": " + std::to_string(one.before.Count()) +
                       " before, " + std::to_string(one.after.Count()) + " after" +
                       (one.Differs() ? "" : ", the same"));
        for (const std::string& timer : one.Timers()) {
            answer.AddLine("  by the timer " + Terminal::Escape(HandlerName::Short(timer)) + ": " +
                           std::to_string(Compared::Ticks(one.before, timer)) + " before, " +
                           std::to_string(Compared::Ticks(one.after, timer)) + " after");
        }
        for (const size_t input : one.Inputs()) {
            answer.AddLine("  " + InputText(recording.inputs[input]) + ": before " +
                           YesOrNo(one.before.inputs.count(input) != 0) + ", after " +
                           YesOrNo(one.after.inputs.count(input) != 0));
        }
    }
    answer.AddLine(std::to_string(recording.inputs.size()) + " inputs, " + std::to_string(recording.missing) +
                   " missing. Limits:");
    for (const char* const limit : limits) {
        answer.AddLine(std::string("  ") + limit);
    }
}

void AddInput(companion::Json& json, const Recording& recording, const Compared& one, size_t index) {
    const RecordedInput& input = recording.inputs[index];
    json.BeginObject();
    json.Key("time").String(companion::ClockState::IsoTime(input.time));
    json.Key("seq").Number(static_cast<int64_t>(input.number));
    json.Key("type").String(input.type);
    json.Key("props").BeginObject();
    for (const auto& [key, value] : input.properties) {
        json.Key(key).String(Terminal::IsSecret(key) ? "***" : value);
    }
    json.EndObject();
    json.Key("before").Bool(one.before.inputs.count(index) != 0);
    json.Key("after").Bool(one.after.inputs.count(index) != 0);
    json.EndObject();
}

void AddJson(const Recording& recording, const std::vector<Compared>& all, Answer& answer) {
    companion::Json json;
    JsonAnswer::Begin(json, "replay");
    json.Key("handlers").BeginArray();
    for (const Compared& one : all) {
        json.BeginObject();
        json.Key("group").String(one.group);
        json.Key("before").Number(one.before.Count());
        json.Key("after").Number(one.after.Count());
        json.Key("differs").Bool(one.Differs());
        json.Key("inputs").BeginArray();
        for (const size_t index : one.Inputs()) {
            AddInput(json, recording, one, index);
        }
        json.EndArray().Key("timers").BeginArray();
        for (const std::string& timer : one.Timers()) {
            json.BeginObject().Key("source").String(timer);
            json.Key("before").Number(Compared::Ticks(one.before, timer));
            json.Key("after").Number(Compared::Ticks(one.after, timer)).EndObject();
        }
        json.EndArray().EndObject();
    }
    json.EndArray();
    json.Key("inputs").Number(static_cast<int64_t>(recording.inputs.size()));
    json.Key("missing").Number(recording.missing);
    json.Key("limits").BeginArray();
    for (const char* const limit : limits) {
        json.String(limit);
    }
    answer.AddLine(json.EndArray().EndObject().Text());
}

ExitStatus RunReplay(const Invocation& invocation, Answer& answer) {
    const OptionReader options(invocation.words, {{"--old", true}, {"--new", true}});
    if (options.Words().size() != 1 || !options.Has("--new")) {
        throw UsageError("replay wants a file and --new PATH");
    }
    const Recording recording = Recording::Read(options.Words().front());
    if (recording.unreadable > 0) {
        Terminal::Complain(std::to_string(recording.unreadable) + " lines of the recording cannot be read");
    }
    const Replay before = Play(invocation, options.Value("--old"), recording);
    const Replay after = Play(invocation, options.Value("--new"), recording);
    const std::vector<Compared> all = Compare(before, after);
    if (invocation.format == Format::Json) {
        AddJson(recording, all, answer);
    } else {
        AddText(recording, all, answer);
    }
    return std::any_of(all.begin(), all.end(), [](const Compared& one) { return one.Differs(); }) ? exitNo : exitYes;
}

}  // namespace

const Verb verbReplay{"replay", "FILE [--old PATH] --new PATH", "what other settings would have done of a recording",
                      help, RunReplay};

}  // namespace kelto::halvek::ctl
