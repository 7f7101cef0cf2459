#pragma once

#include "companions/common/EventReader.h"
#include "companions/common/ListenerPipe.h"
#include "companions/common/UniqueFd.h"
#include "companions/mqtt/Configuration.h"
#include "companions/mqtt/EventQueue.h"
#include "companions/mqtt/Identity.h"
#include "companions/mqtt/Publisher.h"
#include "companions/mqtt/StatusBoard.h"
#include "companions/mqtt/StatusFile.h"
#include "companions/mqtt/Wake.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace kelto::halvek::mqtt {

/**
 * The thread that reads the pipe. It waits for nothing else, so that the pipe never fills: a full one costs the daemon
 * a descriptor with each event.
 */
class Service {
public:
    /** Signals must be blocked already, see BlockSignals. Throws std::system_error. */
    explicit Service(Configuration configuration);

    /** Has the signals that end or reload the service wait for it. To be called before there is a second thread. */
    static void BlockSignals();

    /** Returns after a SIGTERM or SIGINT. Throws std::system_error if the pipe cannot be read. */
    void Run();

private:
    using Milliseconds = std::chrono::milliseconds;

    void Take(const companion::ReceivedEvent& event);
    void ReadPipe();
    void TakeSignal();
    void Reload();
    void Tick();
    void ShowStatus();
    std::string StatusText() const;
    std::string StatusJson() const;
    Milliseconds UntilNextTick() const;
    void Stop();

    Configuration configuration;
    Identity identity;
    uint64_t nextNumber;
    Wake publisherWake;
    Wake boardWake;
    StatusBoard board;
    EventQueue queue;
    companion::EventReader reader;
    // The pipe is gone before anything else is.
    std::optional<companion::ListenerPipe> pipe;
    companion::UniqueFd signals;
    StatusFile statusFile;
    std::optional<Publisher> publisher;

    bool isStopping = false;
    /** Half of what the service manager allows between two signs of life; nothing if it wants none. */
    std::optional<Milliseconds> watchdog;
    Milliseconds nextWatchdog{};
    Milliseconds nextShowing{};
    /** Something may have changed since it was shown. */
    bool mayHaveChanged = true;
    std::string shownText;
    std::string shownJson;
};

}  // namespace kelto::halvek::mqtt
