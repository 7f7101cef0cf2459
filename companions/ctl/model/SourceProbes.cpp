#include "companions/ctl/model/SourceProbes.h"

#include "companions/ctl/Failure.h"
#include "env/AlarmCommon.h"
#include "env/HalvekEnv.h"
#include "env/MotionStateCommon.h"
#include "event/AnalyticsEvent.h"
#include "event/MsgBusEvent.h"
#include "event/ParkEvent.h"
#include "event/TimerEvent.h"
#include "kelto/core/StringUtil.h"
#include "monitor/EventMonitor.h"
#include "source/AlarmEventSource.h"
#include "source/AnalyticsAlertConversion.h"
#include "source/AnalyticsEventSource.h"
#include "source/EventServerSource.h"
#include "source/MsgBusEventSource.h"
#include "source/ParkEventSource.h"
#include "source/PostedBlock.h"
#include "source/SourceFactory.h"
#include "source/TimerEventSource.h"

#include <utility>

namespace kelto::halvek::ctl {

namespace {

/** A source of the daemon's that writes down who is attached to it. */
template <typename Source>
class SourceProbe : public ProbedSource, public Source {
public:
    template <typename... Arguments>
    SourceProbe(Ledger& probeLedger, ModelSource sourceFacts, Arguments&&... arguments)
        : ProbedSource(probeLedger, std::move(sourceFacts)),
          Source(std::forward<Arguments>(arguments)...),
          witness(probeLedger) {
        Source::AddHandler(&witness);
    }

    void Configure(const core::IniFile::Group& group) override {
        facts.settings = group;
        Source::Configure(group);
    }

    using Source::AddHandler;
    void AddHandler(EventHandler* handler) override {
        ledger.NoteEdge(*this, handler, {});
        Source::AddHandler(handler);
    }

private:
    Witness witness;
};

Event::Properties PropertiesOf(const EventQuestion& question) {
    Event::Properties properties = question.properties;
    properties["eventType"] = question.type;
    return properties;
}

/** A source that fires all events of its type to all its handlers. */
template <typename Source, typename FiredEvent>
class PlainSourceProbe : public SourceProbe<Source> {
public:
    template <typename... Arguments>
    PlainSourceProbe(const char* firedType, Ledger& probeLedger, ModelSource sourceFacts, Arguments&&... arguments)
        : SourceProbe<Source>(probeLedger, std::move(sourceFacts), std::forward<Arguments>(arguments)...),
          type(firedType) {}

    void Fire(const EventQuestion& question) override {
        if (question.type == type && IsBuiltIn(question)) {
            FiredEvent event(PropertiesOf(question));
            this->FireEvent(event);
        }
    }

private:
    const std::string type;
};

bool IsInputOfCamera(const EventQuestion& question) {
    return question.type == "Alarm" && question.properties.count("alarmIndex") != 0;
}

class AlarmProbe : public SourceProbe<source::AlarmEventSource> {
public:
    AlarmProbe(UnaskedAlarms& unasked, Ledger& probeLedger, ModelSource sourceFacts, const std::string& type,
               HalvekEnv* env)
        : SourceProbe(probeLedger, std::move(sourceFacts), type, env), alarms(unasked) {}

    void Configure(const core::IniFile::Group& group) override {
        alarms.wasAsked = false;
        SourceProbe::Configure(group);
        facts.asksBus = alarms.wasAsked;
    }

    /** Of a bank that is not known every event might be meant. */
    void Fire(const EventQuestion& question) override {
        int32_t index = 0;
        if (!IsInputOfCamera(question) || !IsBuiltIn(question) ||
            !core::StringUtil::TryParse(question.properties.at("alarmIndex"), index)) {
            return;
        }
        const auto bank = question.properties.find("alarmBank");
        const auto state = question.properties.find("alarmState");
        const bool isActive = state == question.properties.end() || state->second != "0";
        const bool hasBank = bank != question.properties.end() && !facts.asksBus;
        alarms.OnStateChange().Notify(static_cast<source::AlarmEventSource*>(this),
                                      {hasBank ? bank->second : OwnBank(), index, isActive});
    }

private:
    std::string OwnBank() const {
        const auto bank = facts.settings.find(keys.Text("BankName").name);
        return bank == facts.settings.end() ? unknownBank : bank->second;
    }

    UnaskedAlarms& alarms;
};

/** An event server without a pipe. */
class ServerProbe : public SourceProbe<source::EventServerSource> {
public:
    using SourceProbe::SourceProbe;

    void Configure(const core::IniFile::Group& group) override {
        facts.settings = group;
        // NOLINTNEXTLINE(bugprone-parent-virtual-call): the server's own makes the pipe.
        EventSource::Configure(group);
    }

    using SourceProbe::AddHandler;
    void AddHandler(EventHandler* handler, const std::string& eventId) override {
        ledger.NoteEdge(*this, handler, eventId);
        EventServerSource::AddHandler(handler, eventId);
    }

    /** As if the event had been posted. */
    void Fire(const EventQuestion& question) override {
        if (IsBuiltIn(question)) {
            return;
        }
        source::PostedBlock block;
        block.Begin();
        block.TakeLine("[" + question.type + "]");
        for (const auto& [key, value] : question.properties) {
            block.TakeLine(std::string(key).append("=").append(value));
        }
        if (!block.IsGivenUp() && !block.GetEventType().empty()) {
            FireReceived(block);
        }
    }
};

}  // namespace

bool IsBuiltIn(const EventQuestion& question) {
    if (question.origin != EventQuestion::Origin::Suggested) {
        return question.origin == EventQuestion::Origin::BuiltIn;
    }
    return question.type == "Timer" || question.type == "Park" || question.type == source::alertName ||
           IsInputOfCamera(question);
}

std::unique_ptr<EventSource> SourceProbes::Create(const std::string& typeName, HalvekEnv* env) {
    RegisterComponents(env);
    ModelSource facts{.group = GroupOf(typeName, env), .type = typeName, .settings = {}};
    if (typeName == "server") {
        facts.type = env == nullptr ? EventMonitor::serverType : typeName;
        return std::make_unique<ServerProbe>(ledger, std::move(facts));
    }
    if (typeName == "Timer") {
        return std::make_unique<PlainSourceProbe<source::TimerEventSource, event::TimerEvent>>(
            "Timer", ledger, std::move(facts), typeName);
    }
    if (typeName == "Park") {
        return std::make_unique<PlainSourceProbe<source::ParkEventSource, event::ParkEvent>>(
            "Park", ledger, std::move(facts), typeName, env);
    }
    if (typeName == "MsgBus") {
        return std::make_unique<PlainSourceProbe<source::MsgBusEventSource, event::MsgBusEvent>>(
            source::alertName, ledger, std::move(facts), typeName, env);
    }
    if (typeName == "Analytics") {
        return std::make_unique<PlainSourceProbe<source::AnalyticsEventSource, event::AnalyticsEvent>>(
            source::alertName, ledger, std::move(facts), typeName, env);
    }
    if (typeName == "Alarm") {
        return std::make_unique<AlarmProbe>(*alarms, ledger, std::move(facts), typeName, env);
    }
    if (CreateEventSource(typeName, env) != nullptr) {
        throw Failure("the model of the daemon has no probe for sources of type " + typeName);
    }
    withoutSource.insert(facts.group);
    return nullptr;
}

std::string SourceProbes::GroupOf(const std::string& typeName, const HalvekEnv* env) {
    if (env == nullptr) {
        return EventMonitor::serverGroup;
    }
    if (groupsByType.empty()) {
        for (const auto& [group, values] : ini.GetGroups()) {
            const auto type = values.find(EventMonitor::typeKeys.Text("Type").name);
            if (type != values.end()) {
                groupsByType.emplace(&type->second, group);
            }
        }
    }
    const auto group = groupsByType.find(&typeName);
    return group == groupsByType.end() ? EventMonitor::msgBusId : group->second;
}

/** Once, in front of all that would ask the camera. */
void SourceProbes::RegisterComponents(HalvekEnv* env) {
    if (env == nullptr || alarms != nullptr) {
        return;
    }
    auto unasked = std::make_unique<UnaskedAlarms>();
    alarms = unasked.get();
    // Components live as long as the process.
    env->RegisterComponent(AlarmCommon::componentId, new AlarmCommon(std::move(unasked)));
    env->RegisterComponent(MotionStateCommon::componentId, new MotionStateCommon(std::make_unique<UnaskedHead>()));
}

}  // namespace kelto::halvek::ctl
