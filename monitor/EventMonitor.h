#pragma once

#include "env/HalvekEnv.h"
#include "env/SettingsKeys.h"
#include "env/ThreadSafety.h"
#include "kelto/core/IniFile.h"
#include "kelto/osa/Mutex.h"

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kelto::core {
class Logger;
}

namespace kelto::halvek {

class EventHandler;
class EventSource;
class HandlerRegistry;

/**
 * Turns one settings snapshot into running sources with handlers attached, and each further one anew.
 *
 * A fault in one server, source or handler is logged and that item skipped. All operations run on the main thread; each
 * takes the lock "EventMonitor::StructLock" for its whole run. Sources fire on threads of their own, which never take
 * it. Owns the sources, the handlers and the environment; handlers go only after the sources that deliver to them.
 */
class EventMonitor {
public:
    /** Names of groups, or what they begin with. */
    static constexpr const char* serverGroup = "Applications/halvek/Server";
    static constexpr const char* sourcePrefix = "Events/Source#";
    static constexpr const char* handlerPrefix = "Events/Handler#";

    /** The id of the message-bus source that is always there. */
    static constexpr const char* msgBusId = "Applications/halvek/MsgBus";

    /** Below a handler's group: the ids of the sources that it listens to, under any keys. */
    static constexpr const char* sourceIdsGroup = "SourceIds";

    /** The one type of event server. */
    static constexpr const char* serverType = "Pipe";

    /** What the group of the event server, of a source and of a handler have in common. */
    static constexpr SettingsKeys typeKeys{TextKey{.name = "Type", .required = true}};

    /** Makes a source of a type, as CreateEventSource does. */
    using SourceFactory = std::function<std::unique_ptr<EventSource>(const std::string& typeName, HalvekEnv* env)>;

    /**
     * @param registry not owned, must outlive this object
     * @param createSource makes all sources; an empty one stands for CreateEventSource
     */
    explicit EventMonitor(HandlerRegistry* registry, SourceFactory createSource = {});

    /** Stops and destroys all sources, then the handlers, then the environment. Throws nothing. */
    virtual ~EventMonitor();

    /** Creates the message-bus source and one source a group "Events/Source#...". */
    virtual void LoadSources(const core::IniFile& ini);

    /** Creates one handler a group "Events/Handler#..." and attaches it to the sources that it names. */
    virtual void LoadHandlers(const core::IniFile& ini);

    EventMonitor(const EventMonitor&) = delete;
    EventMonitor& operator=(const EventMonitor&) = delete;

    /**
     * Stops and discards everything that exists, builds it anew from the snapshot and starts it.
     *
     * Returns when every source listens. What stopping or starting throws goes on to the caller.
     */
    void Configure(const core::IniFile& ini);

    /** Creates the event server as the group "Applications/halvek/Server" wants it. */
    void LoadServers(const core::IniFile& ini);

    /** Creates the always-on handlers and attaches each to every source. */
    void LoadAlwaysOnHandlers(const core::IniFile& ini);

    /** Attaches a handler, which it does not own, to every source in the order of their ids. */
    void AttachToAllSources(const std::string& name, EventHandler* handler);

    void StartSources();
    void StopSources();

    /** Destroys all sources, which must have been stopped, then the handlers that were attached to them. */
    void ClearSources();

    /**
     * Appends the top-level names of the groups that begin with a prefix: each cut at the first "/" behind the prefix,
     * left out if it equals the one appended just before. The order is that of the bytes, so "#10" comes before "#2".
     */
    static void EnumerateGroups(const core::IniFile& ini, const std::string& prefix, std::list<std::string>& names);

private:
    void LoadSource(const core::IniFile& ini, const std::string& group) HALVEK_REQUIRES(structLock);
    void LoadHandler(const core::IniFile& ini, const std::string& group) HALVEK_REQUIRES(structLock);
    void AttachToSource(const core::IniFile& ini, EventHandler* handler, const std::string& id)
        HALVEK_REQUIRES(structLock);
    EventHandler* Own(std::unique_ptr<EventHandler> handler) HALVEK_REQUIRES(structLock);

    core::Logger& logger;
    osa::Mutex structLock;
    HalvekEnv env HALVEK_GUARDED_BY(structLock);
    std::vector<std::unique_ptr<EventHandler>> handlers HALVEK_GUARDED_BY(structLock);
    std::map<std::string, std::unique_ptr<EventSource>> sources HALVEK_GUARDED_BY(structLock);

    HandlerRegistry* handlerRegistry;
    const SourceFactory createEventSource;
};

}  // namespace kelto::halvek
