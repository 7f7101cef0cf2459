#include "companions/ctl/VerbReplay.h"

#include "companions/common/ClockState.h"
#include "companions/ctl/Failure.h"
#include "companions/ctl/HandlerName.h"
#include "companions/ctl/JsonAnswer.h"
#include "companions/ctl/OptionReader.h"
#include "companions/ctl/Store.h"
#include "companions/ctl/Terminal.h"
#include "companions/ctl/recording/Replay.h"

#include <algorithm>
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
std::vector<std::string> LimitsOf(const Recording& recording) {
    std::vector<std::string> limits = {
        "How long actions took is not known, so timers tick exactly, and from the beginning of the recording on.",
        "Timers with the interval 0 or a failing handler fire without end; here never, and at their interval.",
        "An event for which a handler failed reached no pipe, so that it is not in the recording.",
        "What an action does to the camera, and what the camera says of that, is as it was recorded.",
        "A source without BankName listens to every bank.",
    };
    limits.emplace_back(recording.hasBus
                            ? "The head's rest is counted in whole seconds: its event may come up to one later."
                            : "Alarms, alerts and rests of the head are known as far as the settings of that time had "
                              "sources for them: see record --bus.");
    return limits;
}

/** One handler in both settings. */
struct Compared {
    std::string group;
    Replay::Actions before;
    Replay::Actions after;

    bool Differs() const { return before != after; }

    /** Inputs that one of them acted on and the other did not, or not as often. */
    std::vector<size_t> Inputs() const {
        std::vector<size_t> inputs;
        for (const auto& [input, times] : Together(before.inputs, after.inputs)) {
            if (Times(before, input) != Times(after, input)) {
                inputs.push_back(input);
            }
        }
        return inputs;
    }

    /** Sources that fire by themselves and made one of them act at other times than the other. */
    std::vector<std::string> Sources() const {
        std::vector<std::string> sources;
        for (const auto& [source, ticks] : Together(before.ticks, after.ticks)) {
            const auto one = before.ticks.find(source);
            const auto other = after.ticks.find(source);
            if (one == before.ticks.end() || other == after.ticks.end() || one->second != other->second) {
                sources.push_back(source);
            }
        }
        return Differs() ? sources : std::vector<std::string>{};
    }

    static int32_t Times(const Replay::Actions& actions, size_t input) {
        const auto found = actions.inputs.find(input);
        return found == actions.inputs.end() ? 0 : found->second;
    }

private:
    /** With the keys of both. */
    template <typename Map>
    static Map Together(Map one, const Map& other) {
        one.insert(other.begin(), other.end());
        return one;
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

/** What was played, and with which settings. */
struct Played {
    std::string settings;
    Replay replay;
};

Played Play(Invocation invocation, const std::optional<std::string>& path, const Recording& recording) {
    if (path) {
        invocation.settings = path;
    }
    const StoreLocation location = StoreLocation::Use(invocation);
    // What cannot be read, or would not end, is refused before the model reads it.
    Store::Read(location.GetPath());
    return {location.GetPath(), Replay::Of(recording)};
}

std::string InputText(const RecordedInput& input) {
    std::string text = companion::ClockState::IsoTime(input.time) + " " + Terminal::Escape(input.type);
    for (const auto& [key, value] : input.properties) {
        text.append(" ").append(Terminal::Escape(key)).append("=").append(Terminal::ShownValue(key, value));
    }
    return text;
}

std::string HowOften(int32_t times) {
    return times == 0 ? "no" : times == 1 ? "yes" : std::to_string(times) + " times";
}

void AddText(const Recording& recording, const std::vector<Compared>& all, Answer& answer) {
    for (const Compared& one : all) {
        answer.AddLine(Terminal::Escape(HandlerName::Short(one.group)) + ": " + std::to_string(one.before.Count()) +
                       " before, " + std::to_string(one.after.Count()) + " after" +
                       (one.Differs() ? "" : ", the same"));
        for (const std::string& source : one.Sources()) {
            const int64_t before = one.before.Count(source);
            const int64_t after = one.after.Count(source);
            answer.AddLine("  by " + Terminal::Escape(HandlerName::Short(source)) + ": " + std::to_string(before) +
                           " before, " + std::to_string(after) + " after" +
                           (before == after ? ", at other times" : ""));
        }
        for (const size_t input : one.Inputs()) {
            answer.AddLine("  " + InputText(recording.inputs[input]) + ": before " +
                           HowOften(Compared::Times(one.before, input)) + ", after " +
                           HowOften(Compared::Times(one.after, input)));
        }
    }
    answer.AddLine(std::to_string(recording.inputs.size()) + " inputs, " + std::to_string(recording.missing) +
                   " missing. Limits:");
    for (const std::string& limit : LimitsOf(recording)) {
        answer.AddLine("  " + limit);
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
    json.Key("before").Bool(Compared::Times(one.before, index) != 0);
    json.Key("after").Bool(Compared::Times(one.after, index) != 0);
    json.Key("times_before").Number(Compared::Times(one.before, index));
    json.Key("times_after").Number(Compared::Times(one.after, index));
    json.EndObject();
}

void AddJson(const Played& before, const Played& after, const Recording& recording, const std::vector<Compared>& all,
             Answer& answer) {
    companion::Json json;
    JsonAnswer::Begin(json, "replay");
    json.Key("old").String(before.settings);
    json.Key("new").String(after.settings);
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
        for (const std::string& source : one.Sources()) {
            json.BeginObject().Key("source").String(source);
            json.Key("before").Number(one.before.Count(source));
            json.Key("after").Number(one.after.Count(source)).EndObject();
        }
        json.EndArray().EndObject();
    }
    json.EndArray();
    json.Key("inputs").Number(static_cast<int64_t>(recording.inputs.size()));
    json.Key("missing").Number(recording.missing);
    json.Key("limits").BeginArray();
    for (const std::string& limit : LimitsOf(recording)) {
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
    const Played before = Play(invocation, options.Value("--old"), recording);
    const Played after = Play(invocation, options.Value("--new"), recording);
    const std::vector<Compared> all = Compare(before.replay, after.replay);
    if (invocation.format == Format::Json) {
        AddJson(before, after, recording, all, answer);
    } else {
        AddText(recording, all, answer);
    }
    return std::any_of(all.begin(), all.end(), [](const Compared& one) { return one.Differs(); }) ? exitNo : exitYes;
}

}  // namespace

const Verb verbReplay{"replay", "FILE [--old PATH] --new PATH", "what other settings would have done of a recording",
                      help, RunReplay};

}  // namespace kelto::halvek::ctl
