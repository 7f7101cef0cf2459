#pragma once

#include "env/SettingsKeys.h"
#include "env/ThreadSafety.h"
#include "kelto/osa/Mutex.h"
#include "kelto/osa/Runnable.h"
#include "source/EventSource.h"
#include "source/ListeningThread.h"

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kelto::core {
class Logger;
}

namespace kelto::halvek::source {

class FdInputStream;
class PostedBlock;

/**
 * Takes the events that other processes post on a named pipe, and fires each as a MotionEvent.
 *
 * A thread of its own reads the pipe and runs the handlers, one event at a time. Handlers attached with an event id get
 * the events of that id only, after the handlers attached without one. "EventServerSource::HandlersMapLock" guards the
 * former and is taken before the base's lock. The pipe stays in the file system, and its descriptor stays open after a
 * stop: what was posted in between waits in the pipe. An event that is too large for an output pipe is skipped, and one
 * whose writer never ends it holds up no stop.
 */
class EventServerSource : public EventSource, public osa::Runnable {
public:
    static constexpr SettingsKeys keys{TextKey{.name = "Path", .absent = "/var/run/halvek.pipe"}};

    EventServerSource();

    /** Reads "Path", by default "/var/run/halvek.pipe", and creates the pipe unless something stands there already. */
    void Configure(const core::IniFile::Group& group) override;
    bool IsConfigured() const override;
    /** Stops if it is still listening. */
    ~EventServerSource() override;

    using EventSource::AddHandler;
    void AddHandler(EventHandler* handler, const std::string& eventId) override;

    /** Returns when the pipe is open, or when it could not be opened: the source stays silent then, and an Error is
     * logged. */
    void StartListening() override;
    /** Waits for a delivery in progress. */
    void StopListening() override;
    std::string ToString() const override;

    void Run() override;
    void Stop() override;

    /**
     * Fires an event to the handlers without an id, then to those of the event's "eventId"; a missing one counts as
     * empty.
     *
     * @throws kelto::osa::Exception for an event without properties, and whatever a handler throws
     */
    void FireEvent(Event& event);

protected:
    /** Makes an event of a block that is complete and has a type, and fires it. Throws as FireEvent does. */
    void FireReceived(PostedBlock& block);

private:
    int OpenFifo() const;
    void ReceiveEvent(FdInputStream& stream, std::string& line, PostedBlock& block);
    bool ReadBlock(FdInputStream& stream, std::string& line, PostedBlock& block);

    const core::Logger& logger;
    const std::unique_ptr<osa::Mutex> handlersMapLock;
    std::map<std::string, std::vector<EventHandler*>> handlersByEventId HALVEK_GUARDED_BY(*handlersMapLock);
    std::atomic<bool> running = false;
    std::string fifoPath;
    ListeningThread thread;
};

}  // namespace kelto::halvek::source
