#include "companions/ctl/model/LoadedModel.h"

#include "companions/ctl/model/ModelClock.h"
#include "companions/ctl/model/RecordFile.h"
#include "companions/ctl/model/ScheduleFinder.h"
#include "handler/FilterChain.h"
#include "kelto/core/Logger.h"
#include "kelto/settings/KeltoSettingsClient.h"
#include "kelto/settings/LogManager.h"

#include <algorithm>
#include <exception>
#include <list>
#include <map>
#include <set>
#include <string_view>
#include <utility>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* applicationGroup = "Applications/halvek";
const std::string typeKey = EventMonitor::typeKeys.Text("Type").name;

void SetLevel(core::LogLevel level) {
    core::Logger::SetLevels({.general = level, .byLogger = {}});
}

/** As the monitor merges them. */
core::IniFile::Group MergedSettings(const core::IniFile& ini, const std::string& group, const std::string& type) {
    core::IniFile::Group settings = ini.FindGroup(group + "/" + type);
    const core::IniFile::Group& common = ini.FindGroup(group);
    settings.insert(common.begin(), common.end());
    settings.erase(HandlerProbes::groupKey);
    return settings;
}

std::string TypeOf(const core::IniFile& ini, const std::string& group) {
    std::string type;
    core::IniFile::TryGetValueFromGroup(ini.FindGroup(group), typeKey, type);
    return type;
}

/** Each once: the monitor loads some twice. */
std::vector<std::string> TopGroups(const core::IniFile& ini, const char* prefix) {
    std::list<std::string> names;
    EventMonitor::EnumerateGroups(ini, prefix, names);
    std::set<std::string> seen;
    std::vector<std::string> groups;
    for (std::string& name : names) {
        if (seen.insert(name).second) {
            groups.push_back(std::move(name));
        }
    }
    return groups;
}

/** Whether the days alone keep a handler from acting now. */
bool IsOutOfDay(const core::IniFile::Group& settings) {
    core::IniFile::Group days = settings;
    days.erase(FilterChain::keys.Text("EnabledTimes").name);
    FilterChain filter;
    filter.Configure(days);
    return filter.IsFiltered();
}

/** A handler group that several sources deliver to acts if one of them makes it act, and as often as all of them do. */
void Merge(std::vector<ModelVerdict>& verdicts, ModelVerdict verdict) {
    const auto known = std::find_if(verdicts.begin(), verdicts.end(),
                                    [&](const ModelVerdict& one) { return one.handler == verdict.handler; });
    if (known == verdicts.end()) {
        verdicts.push_back(std::move(verdict));
        return;
    }
    verdict.times += known->times;
    if (!Acts(known->verdict) && Acts(verdict.verdict)) {
        *known = std::move(verdict);
    } else {
        known->times = verdict.times;
    }
}

/** What the event server would tell handlers by. */
std::string EventIdOf(const EventQuestion& question) {
    const auto region = question.properties.find("region");
    return question.type == "MotionDetection" && region != question.properties.end() ? region->second : question.type;
}

}  // namespace

LoadedModel::LoadedModel()
    : sourceProbes(ledger, ini), monitor(&registry, [this](const std::string& typeName, HalvekEnv* env) {
          return sourceProbes.Create(typeName, env);
      }) {
    HandlerProbes::Register(ledger, registry);
    Fetch();
    MarkHandlers();
    Load();
    Describe();
}

void LoadedModel::Fetch() {
    const off_t begin = RecordFile::End();
    settings::KeltoSettingsClient client(settings::OperationMode::Daemon);
    const settings::LogManager manager(&client, applicationGroup);
    client.GetSettings({std::string(applicationGroup) + "*", "Events/*"}, ini);
    NoteRecords(begin, applicationGroup);
}

/** So that each handler learns of its group. One without a group is never made, and must not come to be by this. */
void LoadedModel::MarkHandlers() {
    for (const std::string& group : HandlerGroups()) {
        if (ini.GetGroups().count(group) != 0) {
            ini.AddGroup(group)[HandlerProbes::groupKey] = group;
        }
    }
}

/** As EventMonitor::Configure does, up to the start of what has been loaded. */
void LoadedModel::Load() {
    SetLevel(core::LogLevel::Information);
    off_t begin = RecordFile::End();
    monitor.LoadServers(ini);
    NoteRecords(begin, EventMonitor::serverGroup);
    begin = RecordFile::End();
    monitor.LoadSources(ini);
    monitor.LoadHandlers(ini);
    NoteRecords(begin, "");
    begin = RecordFile::End();
    monitor.LoadAlwaysOnHandlers(ini);
    NoteRecords(begin, "");
    SetLevel(core::LogLevel::Warning);
}

void LoadedModel::NoteRecords(off_t begin, const char* group) {
    std::map<std::string, std::string> escaped;
    for (const auto& [whole, values] : ini.GetGroups()) {
        // What is announced may have groups below it only.
        for (size_t end = whole.size(); end != std::string::npos && end > 0; end = whole.rfind('/', end - 1)) {
            const std::string name = whole.substr(0, end);
            std::string inRecord = RecordFile::Escaped(name);
            if (inRecord != name) {
                escaped.emplace(std::move(inRecord), name);
            }
        }
    }
    for (ModelRecord& record : RecordFile::Parse(RecordFile::ReadFrom(begin), group, escaped)) {
        answers.records.push_back(std::move(record));
    }
}

void LoadedModel::Describe() {
    std::sort(ledger.sources.begin(), ledger.sources.end(),
              [](const ProbedSource* one, const ProbedSource* other) { return one->facts.group < other->facts.group; });
    for (const ProbedSource* source : ledger.sources) {
        answers.sources.push_back(source->facts);
    }
    answers.absentSources = DescribeAbsentSources();
    std::map<std::string_view, const ProbedHandler*> probes;
    for (const ProbedHandler* probe : ledger.handlers) {
        probes[probe->name] = probe;
    }
    for (const std::string& group : HandlerGroups()) {
        const auto probe = probes.find(group);
        answers.handlers.push_back(DescribeHandler(group, probe == probes.end() ? nullptr : probe->second));
    }
    answers.edges = DescribeEdges();
}

std::vector<ModelSource> LoadedModel::DescribeAbsentSources() const {
    std::vector<ModelSource> absent;
    for (const std::string& group : TopGroups(ini, EventMonitor::sourcePrefix)) {
        if (answers.FindSource(group) == nullptr) {
            ModelSource source{.group = group, .type = TypeOf(ini, group), .settings = {}};
            source.isPosted = sourceProbes.HasNoSourceOfItsOwn(group);
            absent.push_back(std::move(source));
        }
    }
    return absent;
}

std::vector<std::string> LoadedModel::HandlerGroups() const {
    return TopGroups(ini, EventMonitor::handlerPrefix);
}

/** @param probe null if the daemon does without the handler */
ModelHandler LoadedModel::DescribeHandler(const std::string& group, const ProbedHandler* probe) const {
    ModelHandler handler{.group = group, .type = TypeOf(ini, group), .settings = {}, .sourceIds = {}};
    handler.sourceIds = ini.FindGroup(group + "/" + EventMonitor::sourceIdsGroup);
    handler.settings = MergedSettings(ini, group, handler.type);
    if (probe != nullptr) {
        handler.isLoaded = true;
        handler.isConfigured = probe->CallsItselfConfigured();
        handler.asksBus = probe->asksBus;
    }
    return handler;
}

std::vector<std::string> LoadedModel::PostedIds(const std::string& handler, const std::string& eventId) const {
    std::vector<std::string> ids;
    for (const auto& [key, id] : ini.FindGroup(handler + "/" + EventMonitor::sourceIdsGroup)) {
        if (!eventId.empty() && answers.FindSource(id) == nullptr && TypeOf(ini, id) == eventId) {
            ids.push_back(id);
        }
    }
    return ids;
}

std::vector<ModelEdge> LoadedModel::DescribeEdges() const {
    std::vector<ModelEdge> edges;
    for (const ProbedSource* source : ledger.sources) {
        std::map<std::string, std::vector<const ProbedHandler*>> byEventId;
        for (const Ledger::Edge& edge : ledger.edges) {
            if (edge.source == source) {
                byEventId[edge.eventId].push_back(edge.handler);
            }
        }
        const auto ofAllEvents = static_cast<int32_t>(byEventId[""].size());
        for (const auto& [eventId, handlers] : byEventId) {
            int32_t order = eventId.empty() ? 0 : ofAllEvents;
            for (const ProbedHandler* handler : handlers) {
                edges.push_back(
                    {source->facts.group, handler->name, eventId, PostedIds(handler->name, eventId), ++order});
            }
        }
    }
    return edges;
}

ModelAnswers LoadedModel::Answer(const ModelQuestions& questions) {
    for (const EventQuestion& question : questions.events) {
        answers.events.push_back(Answer(question));
    }
    const std::vector<std::string> groups = questions.scheduleOf.empty() ? HandlerGroups() : questions.scheduleOf;
    for (const ScheduleQuestion& question : questions.schedules) {
        // A filter that cannot read a range says so at every minute.
        SetLevel(core::LogLevel::Error);
        ScheduleFinder finder(question);
        std::vector<HandlerSchedule>& schedules = answers.schedules.emplace_back();
        for (const std::string& group : groups) {
            if (const ModelHandler* const handler = answers.FindHandler(group)) {
                schedules.push_back(finder.Find(*handler));
            }
        }
    }
    return std::move(answers);
}

EventAnswer LoadedModel::Answer(const EventQuestion& question) {
    ModelClock::Set(question.time);
    EventAnswer answer;
    for (ProbedSource* source : ledger.sources) {
        Deliver(*source, question, answer);
    }
    for (const ModelHandler& handler : answers.handlers) {
        Merge(answer.handlers, UnreachedVerdict(handler, question));
    }
    return answer;
}

void LoadedModel::Deliver(ProbedSource& source, const EventQuestion& question, EventAnswer& answer) {
    ledger.ForgetDelivery();
    try {
        source.Fire(question);
    } catch (const std::exception&) {
        // A handler that is not configured. Which one that is shows below.
    }
    if (!ledger.isReached) {
        return;
    }
    std::string failing;
    // In the same order, so that a handler which stands on the list twice acts twice, or once if one between fails.
    auto action = ledger.actions.begin();
    for (const ProbedHandler* handler : DeliveryOrder(source, ledger.eventId)) {
        ModelVerdict verdict{handler->name, Verdict::OutOfTime, source.facts.group, failing};
        if (action != ledger.actions.end() && action->handler == handler) {
            verdict.times = 1;
            verdict.verdict = action->hasUnreadableRange ? Verdict::UnreadableRange : Verdict::Acts;
            ++action;
        } else if (!failing.empty()) {
            verdict.verdict = Verdict::BehindFailing;
        } else if (!handler->CallsItselfConfigured()) {
            verdict.verdict = Verdict::NotConfigured;
            failing = handler->name;
        } else if (IsOutOfDay(handler->settings)) {
            verdict.verdict = Verdict::OutOfDay;
        }
        Merge(handler->isAlwaysOn ? answer.alwaysOn : answer.handlers, std::move(verdict));
    }
}

std::vector<const ProbedHandler*> LoadedModel::DeliveryOrder(const ProbedSource& source,
                                                             const std::string& eventId) const {
    std::vector<const ProbedHandler*> handlers;
    const auto append = [&](const std::string& wanted) {
        for (const Ledger::Edge& edge : ledger.edges) {
            if (edge.source == &source && edge.eventId == wanted) {
                handlers.push_back(edge.handler);
            }
        }
    };
    append({});
    if (!eventId.empty()) {
        append(eventId);
    }
    return handlers;
}

/** Of a handler that no source of the event delivers to. */
ModelVerdict LoadedModel::UnreachedVerdict(const ModelHandler& handler, const EventQuestion& question) const {
    ModelVerdict verdict{handler.group, Verdict::NotWired, {}, {}};
    const core::IniFile::Group& ids = handler.sourceIds;
    if (!handler.isLoaded) {
        const bool hasType = ini.FindGroup(handler.group).count(typeKey) != 0;
        verdict.verdict = hasType && ids.empty() ? Verdict::NotWired : Verdict::LeftOut;
        return verdict;
    }
    const bool hasServer = answers.FindSource(EventMonitor::serverGroup) != nullptr;
    const std::string eventId = EventIdOf(question);
    const bool isMeant = std::any_of(ids.begin(), ids.end(), [&](const auto& id) {
        return answers.FindSource(id.second) == nullptr &&
               (id.second == EventMonitor::serverGroup || TypeOf(ini, id.second) == eventId);
    });
    const bool hasEdges = std::any_of(answers.edges.begin(), answers.edges.end(),
                                      [&](const ModelEdge& edge) { return edge.handler == handler.group; });
    if (isMeant && !hasServer && !IsBuiltIn(question)) {
        verdict.verdict = Verdict::NoEventPipe;
    } else if (hasEdges && !isMeant) {
        verdict.verdict = Verdict::OtherType;
    }
    return verdict;
}

}  // namespace kelto::halvek::ctl
