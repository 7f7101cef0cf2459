#include "companions/ctl/VerbTry.h"

#include "companions/ctl/Expectations.h"
#include "companions/ctl/Failure.h"
#include "companions/ctl/HandlerName.h"
#include "companions/ctl/JsonAnswer.h"
#include "companions/ctl/LocalTime.h"
#include "companions/ctl/OptionReader.h"
#include "companions/ctl/Store.h"
#include "companions/ctl/Terminal.h"
#include "companions/ctl/TryNeeds.h"
#include "companions/ctl/VerdictReason.h"
#include "companions/ctl/live/DaemonProcess.h"
#include "companions/ctl/live/DaemonSurroundings.h"
#include "companions/ctl/model/OneAction.h"

#include <algorithm>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* help =
    "Whether a handler would act now, and whether what it needs is there: programs, snapshot, folder, host, camera.\n"
    "Without --act nothing is done. With it the daemon's own code acts once, whatever the handler's times say.\n"
    "  --act         REALLY act: switch the relay, move the head, send the file or the mail\n"
    "  --event TYPE  the event, with its properties behind the handler (that of its first source)\n"
    "  --at TIME     when, for the handler's times (now)\n"
    "Root acts as the daemon does: with its view of the file system, its environment, groups and user. Its filter of\n"
    "system calls and the networks that it may use are not the same. Others, and root without a daemon, act as they\n"
    "are.\n"
    "Status: 0 if it would act and nothing is missing, or has acted well; else 1.\n";

/** What the first of a handler's sources fires, where that can be told. */
std::string EventTypeOf(const ModelAnswers& model, const ModelHandler& handler) {
    for (const auto& [key, id] : handler.sourceIds) {
        if (const ModelSource* const source = model.FindSource(id)) {
            return source->type == "Analytics" || source->type == "MsgBus" ? "AnalyticsAlert" : source->type;
        }
        const auto posted = std::find_if(model.absentSources.begin(), model.absentSources.end(),
                                         [&wanted = id](const ModelSource& one) { return one.group == wanted; });
        if (posted != model.absentSources.end() && !posted->type.empty()) {
            return posted->type;
        }
    }
    return "Timer";
}

/** Properties that the camera's inputs and alarms always have. */
void Complete(EventQuestion& event, const ModelAnswers& model, const ModelHandler& handler) {
    if (event.type != "Alarm" || event.properties.count("alarmIndex") != 0) {
        return;
    }
    for (const auto& [key, id] : handler.sourceIds) {
        const ModelSource* const source = model.FindSource(id);
        if (source != nullptr && source->type == "Alarm") {
            const auto index = source->settings.find("Index");
            event.properties["alarmIndex"] = index == source->settings.end() ? "0" : index->second;
            event.properties["alarmState"] = "1";
            return;
        }
    }
}

/** All that is to be told. */
struct Trial {
    ModelHandler handler;
    EventQuestion event;
    std::string verdict;
    std::string reason;
    bool wouldAct = false;
    std::vector<TryNeed> needs;
    /** Whose surroundings count. */
    std::string surroundings;
    std::optional<ActionResult> action;

    bool IsFine() const {
        if (action) {
            return action->wentWell;
        }
        return wouldAct && std::all_of(needs.begin(), needs.end(), [](const TryNeed& need) { return need.isThere; });
    }
};

Trial Examine(const StoreLocation& location, const OptionReader& options) {
    const std::optional<std::string> at = options.Value("--at");
    const int64_t time = at ? LocalTime::Parse(*at) : LocalTime::Now();
    // What cannot be read, or would not end, is refused before the model reads it.
    Store::Read(location.GetPath());
    const ModelAnswers plain = AskModel();
    Trial trial;
    const std::string group = HandlerName::Find(plain, options.Words().front());
    trial.handler = *plain.FindHandler(group);
    std::vector<std::string> words = {options.Value("--event").value_or(EventTypeOf(plain, trial.handler))};
    words.insert(words.end(), std::next(options.Words().begin()), options.Words().end());
    trial.event = ParseEvent(words, time);
    Complete(trial.event, plain, trial.handler);

    const CheckedStore checked = CheckedStore::Check(
        location.GetPath(),
        {.here = true, .zone = "", .questions = {.events = {trial.event}, .schedules = {}, .scheduleOf = {}}});
    const ModelAnswers& model = *checked.examination->model;
    const std::vector<ModelVerdict>& verdicts = model.events.front().handlers;
    const auto verdict =
        std::find_if(verdicts.begin(), verdicts.end(), [&](const ModelVerdict& one) { return one.handler == group; });
    if (verdict != verdicts.end()) {
        trial.verdict = VerdictName(verdict->verdict);
        trial.wouldAct = Acts(verdict->verdict);
        trial.reason = VerdictReason(model, checked.examination->positions).Text(*verdict, time);
    }
    trial.needs = TryNeeds::Of(checked, HandlerView(*checked.examination, group));
    return trial;
}

std::string SurroundingsText(const std::optional<DaemonProcess>& daemon) {
    if (!daemon) {
        return "no daemon runs: as " + std::string(DaemonSurroundings::MayEnter() ? "root" : "this user") +
               ", with the environment of this shell";
    }
    return DaemonSurroundings::MayEnter()
               ? "those of daemon " + std::to_string(daemon->pid) + ", but for its system calls and networks"
               : "those of this user, not the daemon's: only root may take them";
}

void AddText(const Trial& trial, Answer& answer) {
    answer.AddLine(Terminal::Escape(HandlerName::Short(trial.handler.group)) + " (" +
                   Terminal::Escape(trial.handler.type) + ") on " + Terminal::Escape(trial.event.type) + " at " +
                   LocalTime::Iso(trial.event.time) + ": " + trial.verdict + ", " + trial.reason);
    for (const TryNeed& need : trial.needs) {
        answer.AddLine(std::string(need.isThere ? "  there    " : "  MISSING  ") + need.name + ": " + need.text);
    }
    answer.AddLine("  surroundings: " + trial.surroundings);
    if (!trial.action) {
        answer.AddLine("  Nothing was done; --act does it.");
        return;
    }
    size_t begin = 0;
    const std::string& records = trial.action->records;
    while (begin < records.size()) {
        const size_t end = std::min(records.find('\n', begin), records.size());
        answer.AddLine("  " + Terminal::Escape(std::string_view(records).substr(begin, end - begin)));
        begin = end + 1;
    }
    answer.AddLine(std::string(trial.action->wentWell ? "  Acted" : "  Failed") + " in " +
                   std::to_string(trial.action->milliseconds) + " ms.");
}

void AddJson(const Trial& trial, const StoreLocation& location, Answer& answer) {
    companion::Json json;
    JsonAnswer::Begin(json, "try", location);
    json.Key("group").String(trial.handler.group);
    json.Key("type").String(trial.handler.type);
    json.Key("event").String(trial.event.type);
    json.Key("at").String(LocalTime::Iso(trial.event.time));
    json.Key("verdict").String(trial.verdict);
    json.Key("acts").Bool(trial.wouldAct);
    json.Key("text").String(trial.reason);
    json.Key("needs").BeginArray();
    for (const TryNeed& need : trial.needs) {
        json.BeginObject().Key("name").String(need.name).Key("there").Bool(need.isThere);
        json.Key("text").String(need.text).EndObject();
    }
    json.EndArray();
    json.Key("surroundings").String(trial.surroundings);
    json.Key("acted").Bool(trial.action.has_value());
    if (trial.action) {
        json.Key("went_well").Bool(trial.action->wentWell);
        json.Key("milliseconds").Number(trial.action->milliseconds);
        json.Key("records").String(trial.action->records);
    }
    answer.AddLine(json.EndObject().Text());
}

ExitStatus RunTry(const Invocation& invocation, Answer& answer) {
    const OptionReader options(invocation.words, {{"--act", false}, {"--event", true}, {"--at", true}});
    if (options.Words().empty()) {
        throw UsageError("the handler is missing");
    }
    const StoreLocation location = StoreLocation::Use(invocation);
    const std::optional<DaemonProcess> daemon = DaemonProcess::Find();
    Trial trial = Examine(location, options);
    trial.surroundings = SurroundingsText(daemon);
    if (options.Has("--act")) {
        // An answer that nobody can get comes before anything is done.
        answer.Flush();
        trial.action = ActOnce(trial.handler, trial.event, [&] {
            if (daemon && DaemonSurroundings::MayEnter()) {
                DaemonSurroundings::Enter(*daemon);
                setenv("KELTO_SETTINGS", location.GetPath().c_str(), 1);
            }
        });
    }
    if (invocation.format == Format::Json) {
        AddJson(trial, location, answer);
    } else {
        AddText(trial, answer);
    }
    return trial.IsFine() ? exitYes : exitNo;
}

}  // namespace

const Verb verbTry{"try", "HANDLER [KEY=VALUE...] [--act] [--event TYPE] [--at TIME]",
                   "whether one handler could act now; with --act it does", help, RunTry};

}  // namespace kelto::halvek::ctl
