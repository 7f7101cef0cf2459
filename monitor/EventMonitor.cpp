#include "monitor/EventMonitor.h"

#include "env/HandlerRegistry.h"
#include "env/SettingsReader.h"
#include "handler/EventHandler.h"
#include "kelto/core/Logger.h"
#include "kelto/core/StringUtil.h"
#include "kelto/osa/Exception.h"
#include "kelto/osa/MutexAutoLock.h"
#include "source/EventSource.h"
#include "source/SourceFactory.h"

#include <exception>
#include <utility>

namespace kelto::halvek {

namespace {

constexpr const char* separator = "***************************************************************";
constexpr int32_t alwaysOnKind = 1;

/** The type of the server, source or handler that a group stands for. Throws kelto::osa::Exception if it has none. */
const std::string& ReadType(const core::IniFile& ini, const std::string& group) {
    return SettingsReader::Read(ini, group, EventMonitor::typeKeys.Text("Type"));
}

/** What a handler is configured from: its type's own group, and behind it the group common to all types. */
core::IniFile::Group HandlerSettings(const core::IniFile& ini, const std::string& group, const std::string& type) {
    core::IniFile::Group settings = ini.FindGroup(group + "/" + type);
    const core::IniFile::Group& common = ini.FindGroup(group);
    settings.insert(common.begin(), common.end());
    return settings;
}

}  // namespace

EventMonitor::EventMonitor(HandlerRegistry* registry, SourceFactory createSource)
    : logger(core::Logger::GetLogger("halvek")),
      structLock("EventMonitor::StructLock"),
      handlerRegistry(registry),
      createEventSource(createSource ? std::move(createSource) : CreateEventSource) {}

EventMonitor::~EventMonitor() {
    try {
        StopSources();
    } catch (...) {
        // The process ends; what could not be stopped goes with it.
    }
    ClearSources();
}

void EventMonitor::Configure(const core::IniFile& ini) {
    const osa::MutexAutoLock lock(structLock);
    logger.Information("Configuring...\n");
    StopSources();
    ClearSources();
    logger.Information("Current INI:\n%s", ini.SaveToString().c_str());

    logger.Information("%s", separator);
    logger.Information("Loading Servers");
    LoadServers(ini);
    logger.Information("Done loading servers\n");

    logger.Information("%s", separator);
    logger.Information("Loading Sources");
    LoadSources(ini);
    logger.Information("Done loading sources\n");

    logger.Information("%s", separator);
    logger.Information("Loading Handlers");
    LoadHandlers(ini);
    logger.Information("Done loading handlers\n");

    logger.Information("%s", separator);
    logger.Information("Loading External Handler");
    LoadAlwaysOnHandlers(ini);
    logger.Information("Done loading external handler\n");
    logger.Information("%s", separator);

    env.StartMsgBus();
    StartSources();
}

void EventMonitor::EnumerateGroups(const core::IniFile& ini, const std::string& prefix, std::list<std::string>& names) {
    const core::IniFile::Groups& groups = ini.GetGroups();
    const std::string* previous = nullptr;
    for (auto group = groups.lower_bound(prefix);
         group != groups.end() && core::StringUtil::StartsWith(group->first, prefix); ++group) {
        const std::string name = group->first.substr(0, group->first.find('/', prefix.size()));
        if (previous == nullptr || name != *previous) {
            previous = &names.emplace_back(name);
        }
    }
}

void EventMonitor::LoadServers(const core::IniFile& ini) {
    const osa::MutexAutoLock lock(structLock);
    try {
        const std::string& type = ReadType(ini, serverGroup);
        if (type != serverType) {
            throw osa::Exception("We currently only support pipe servers");
        }
        logger.Information("\tFound Server: %s", type.c_str());
        std::unique_ptr<EventSource> server = createEventSource("server", nullptr);
        if (server != nullptr) {
            server->Configure(ini.FindGroup(std::string(serverGroup) + "/" + type));
            sources[serverGroup] = std::move(server);
        }
    } catch (const std::exception& exception) {
        logger.Warning("\tError LoadServers: %s", exception.what());
    } catch (...) {
        logger.Warning("\tError LoadServers: server has an invalid config");
    }
}

void EventMonitor::LoadSources(const core::IniFile& ini) {
    const osa::MutexAutoLock lock(structLock);
    try {
        std::unique_ptr<EventSource> msgBusSource = createEventSource("MsgBus", &env);
        if (msgBusSource != nullptr) {
            sources[msgBusId] = std::move(msgBusSource);
        }
        std::list<std::string> groups;
        EnumerateGroups(ini, sourcePrefix, groups);
        for (const std::string& group : groups) {
            LoadSource(ini, group);
        }
    } catch (const std::exception& exception) {
        logger.Warning("\tError LoadSources: %s", exception.what());
    } catch (...) {
        logger.Warning("\tError LoadSources: source has an invalid config");
    }
}

void EventMonitor::LoadSource(const core::IniFile& ini, const std::string& group) {
    try {
        logger.Information("\tFound source %s", group.c_str());
        const std::string& type = ReadType(ini, group);
        logger.Information("\tSource: %s\tType: %s", group.c_str(), type.c_str());
        std::unique_ptr<EventSource> source = createEventSource(type, &env);
        if (source == nullptr) {
            return;
        }
        source->Configure(ini.FindGroup(group + "/" + type));
        sources[group] = std::move(source);
    } catch (const std::exception& exception) {
        logger.Warning("\tError LoadSources: %s", exception.what());
    } catch (...) {
        logger.Warning("\tError LoadSources: source has an invalid config");
    }
}

void EventMonitor::LoadHandlers(const core::IniFile& ini) {
    const osa::MutexAutoLock lock(structLock);
    std::list<std::string> groups;
    EnumerateGroups(ini, handlerPrefix, groups);
    for (const std::string& group : groups) {
        LoadHandler(ini, group);
    }
}

void EventMonitor::LoadHandler(const core::IniFile& ini, const std::string& group) {
    try {
        logger.Information("Found handler %s", group.c_str());
        const std::string& type = ReadType(ini, group);
        logger.Information("Handler: %s  Type: %s", group.c_str(), type.c_str());
        const core::IniFile::Group& ids = ini.FindGroup(group + "/" + sourceIdsGroup);
        if (ids.empty()) {
            logger.Debug("Handler %s has no sources", type.c_str());
            return;
        }
        std::unique_ptr<EventHandler> created = handlerRegistry->CreateHandlerByName(type, &env);
        if (created == nullptr) {
            logger.Error("CreateHandlerByName failed for %s", type.c_str());
            return;
        }
        created->Configure(HandlerSettings(ini, group, type));
        EventHandler* const handler = Own(std::move(created));
        for (const auto& [key, id] : ids) {
            AttachToSource(ini, handler, id);
        }
    } catch (const std::exception& exception) {
        logger.Warning("Error LoadHandlers: %s", exception.what());
    } catch (...) {
        logger.Warning("Error LoadHandlers: %s", "handler has an invalid config");
    }
}

void EventMonitor::AttachToSource(const core::IniFile& ini, EventHandler* handler, const std::string& id) {
    logger.Debug("Source name: %s ", id.c_str());
    auto source = sources.find(id);
    if (source != sources.end()) {
        source->second->AddHandler(handler);
    } else {
        const std::string& eventType = ReadType(ini, id);
        logger.Debug("The source type being added to the EventServer: %s", eventType.c_str());
        source = sources.find(serverGroup);
        if (source == sources.end()) {
            logger.Warning("Error LoadHandlers: %s", (id + " needs the event server " + serverGroup).c_str());
            return;
        }
        source->second->AddHandler(handler, eventType);
    }
    logger.Debug("Source created: %s", source->second->ToString().c_str());
}

EventHandler* EventMonitor::Own(std::unique_ptr<EventHandler> handler) {
    return handlers.emplace_back(std::move(handler)).get();
}

void EventMonitor::LoadAlwaysOnHandlers(const core::IniFile&) {
    const osa::MutexAutoLock lock(structLock);
    std::list<std::string> names;
    handlerRegistry->GetNamesOfKind(alwaysOnKind, names);
    for (const std::string& name : names) {
        try {
            std::unique_ptr<EventHandler> handler = handlerRegistry->CreateHandlerByName(name, &env);
            if (handler == nullptr) {
                logger.Error("Failed to create handler %s", name.c_str());
                continue;
            }
            AttachToAllSources(name, Own(std::move(handler)));
        } catch (const std::exception& exception) {
            logger.Warning("Error Loading AlwaysOn Handler: %s", exception.what());
        } catch (...) {
            logger.Warning("Error Loading AlwaysOn Handler: %s", "handler misconfigured");
        }
    }
}

void EventMonitor::AttachToAllSources(const std::string& name, EventHandler* handler) {
    const osa::MutexAutoLock lock(structLock);
    logger.Debug("Number of sources: %i", static_cast<int>(sources.size()));
    for (const auto& [id, source] : sources) {
        logger.Debug("Added %s handler to source", name.c_str());
        source->AddHandler(handler);
    }
}

void EventMonitor::StartSources() {
    const osa::MutexAutoLock lock(structLock);
    for (const auto& [id, source] : sources) {
        logger.Debug("Starting source: %s", source->ToString().c_str());
        source->StartListening();
    }
    logger.Debug("Done starting sources");
}

void EventMonitor::StopSources() {
    const osa::MutexAutoLock lock(structLock);
    for (const auto& [id, source] : sources) {
        source->StopListening();
    }
}

void EventMonitor::ClearSources() {
    const osa::MutexAutoLock lock(structLock);
    sources.clear();
    handlers.clear();
}

}  // namespace kelto::halvek
