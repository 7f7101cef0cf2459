#pragma once

#include "env/ThreadSafety.h"
#include "event/Event.h"
#include "event/IConfigurable.h"
#include "kelto/osa/Mutex.h"

#include <list>
#include <string>

namespace kelto::halvek {

class EventHandler;

/**
 * The base of everything that produces events: keeps the attached handlers and delivers to them.
 *
 * The event monitor configures, wires, starts, stops and destroys a source on its own thread; the source fires on a
 * thread of its own or a platform's. The lock "EventSource::HandlersLock" guards the list and is held while the
 * handlers run, so that the handlers of one source never run at the same time. A source owns no handler; every handler
 * must outlive it.
 */
class EventSource : public virtual IConfigurable {
public:
    EventSource();

    /** Logs the group; keeps nothing of it. */
    void Configure(const core::IniFile::Group& group) override;

    bool IsConfigured() const override = 0;

    ~EventSource() override = default;

    /**
     * Attaches a handler behind those that are there already; the same one may stand twice. Waits for a delivery in
     * progress, so a handler must not call it on the source that is delivering to it.
     */
    virtual void AddHandler(EventHandler* handler);

    /** Attaches a handler for events of one id. A source that does not tell ids apart attaches it for all. */
    virtual void AddHandler(EventHandler* handler, const std::string& eventId);

    /** Starts to produce events. Throws kelto::osa::Exception if it cannot. */
    virtual void StartListening() = 0;

    /** Stops to produce events; when it returns no delivery is in progress any more. A running action is waited for. */
    virtual void StopListening() = 0;

    /** "EventSource{" + type name + "}". */
    virtual std::string ToString() const = 0;

    /**
     * Stamps the event and hands it to every handler, in the order of attachment, on the calling thread.
     *
     * What a handler throws goes on to the caller: the handlers behind it do not get the event.
     *
     * @throws kelto::osa::Exception if the source is not configured
     */
    void FireEvent(Event& event);

private:
    osa::Mutex handlersLock;
    std::list<EventHandler*> handlers HALVEK_GUARDED_BY(handlersLock);
};

}  // namespace kelto::halvek
