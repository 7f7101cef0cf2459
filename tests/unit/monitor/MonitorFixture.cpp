#include "tests/unit/monitor/MonitorFixture.h"

#include "event/TimerEvent.h"
#include "source/SourceFactory.h"

namespace kelto::halvek {

namespace {

std::string Joined(const core::IniFile::Group& group) {
    std::string text;
    for (const auto& [key, value] : group) {
        text.append(" ").append(key).append("=").append(value);
    }
    return text;
}

}  // namespace

test::Journal MonitorFixture::journal;
std::map<std::string, std::vector<test::RecordingHandler*>> MonitorFixture::handlers;
std::atomic<int> MonitorFixture::liveHandlers = 0;

MonitorFixture::JournalHandler::JournalHandler(const std::string& handlerType, std::function<void()> onConfigure)
    : RecordingHandler([handlerType](Event& event) { journal.Note(handlerType + " gets " + event.GetEventType()); }),
      type(handlerType),
      action(std::move(onConfigure)) {
    ++liveHandlers;
    handlers[type].push_back(this);
    journal.Note("make " + type);
}

MonitorFixture::JournalHandler::~JournalHandler() {
    --liveHandlers;
    journal.Note("destroy " + type);
}

void MonitorFixture::JournalHandler::Configure(const core::IniFile::Group& group) {
    journal.Note("configure " + type + Joined(group));
    RecordingHandler::Configure(group);
    if (action) {
        action();
    }
}

MonitorFixture::MonitorFixture() {
    journal.Clear();
    handlers.clear();
    AddHandlerType(
        "Probe", [](HalvekEnv*) -> std::unique_ptr<EventHandler> { return std::make_unique<JournalHandler>("Probe"); });
    AddHandlerType(
        "Other", [](HalvekEnv*) -> std::unique_ptr<EventHandler> { return std::make_unique<JournalHandler>("Other"); });
    AddHandlerType(
        "Always",
        [](HalvekEnv*) -> std::unique_ptr<EventHandler> { return std::make_unique<JournalHandler>("Always"); }, 1);
    for (const std::string name : {"A", "B", "C"}) {
        AddSourceType(name, ProbeCreator(name));
    }
    AddSourceType("MsgBus", [](HalvekEnv*) { return nullptr; });
    monitor = MakeMonitor();
}

// Before what its sources and handlers refer to.
MonitorFixture::~MonitorFixture() {
    monitor.reset();
}

core::IniFile MonitorFixture::MakeIni(const core::IniFile::Groups& groups) {
    core::IniFile ini;
    for (const auto& [name, group] : groups) {
        ini.AddGroup(name) = group;
    }
    return ini;
}

MonitorFixture::SourceCreator MonitorFixture::ProbeCreator(const std::string& name,
                                                           test::ProbeSource::Actions actions) {
    return [this, name, actions](HalvekEnv*) {
        auto source = std::make_unique<test::ProbeSource>(journal, name, actions);
        sources[name] = source.get();
        return source;
    };
}

std::unique_ptr<EventMonitor> MonitorFixture::MakeMonitor() {
    return std::make_unique<EventMonitor>(
        &registry, [this](const std::string& type, HalvekEnv* env) { return CreateSource(type, env); });
}

std::unique_ptr<EventSource> MonitorFixture::CreateSource(const std::string& type, HalvekEnv* env) const {
    const auto creator = creators.find(type);
    return creator == creators.end() ? CreateEventSource(type, env) : creator->second(env);
}

void MonitorFixture::AddSourceType(const std::string& type, const SourceCreator& creator) {
    creators[type] = creator;
}

void MonitorFixture::UseRealSourceType(const std::string& type) {
    creators.erase(type);
}

void MonitorFixture::AddHandlerType(const char* name, HandlerCreator creator, int32_t kind) {
    registrations.push_back(std::make_unique<HandlerRegistration>(HandlerRegistration{name, creator, kind}));
    registry.Register(registrations.back().get());
}

void MonitorFixture::Fire(const std::string& name, const std::string& eventType) {
    event::TimerEvent event(Event::Properties{{"eventType", eventType}});
    Source(name).FireEvent(event);
}

std::vector<std::string> MonitorFixture::EntriesWith(const std::string& part) {
    std::vector<std::string> entries = journal.Entries();
    std::erase_if(entries, [&](const std::string& entry) { return entry.find(part) == std::string::npos; });
    return entries;
}

}  // namespace kelto::halvek
