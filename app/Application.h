#pragma once

#include "kelto/settings/KeltoSettingsClient.h"
#include "monitor/EventMonitor.h"

#include <array>
#include <memory>
#include <set>
#include <string>

namespace kelto::core {
class Logger;
}
namespace kelto::settings {
class LogManager;
}

namespace kelto::halvek {

/**
 * The process: settings, event monitor, signals and the loop that waits for them. One at a time; made, run and
 * destroyed on the main thread.
 *
 * A signal handler runs on whatever thread the kernel picks. It only logs and writes a command character into a pipe to
 * this process itself; the run loop reads it there, so reloads and the stop happen on the main thread, in order, one at
 * a time, and a signal that arrives while the loop is busy waits in the pipe.
 */
class Application {
public:
    /**
     * Starts everything: when it returns the first configuration runs and signals are caught. A configuration that
     * cannot be loaded is logged and does not stop the start.
     *
     * @param createSource makes all sources; an empty one stands for the daemon's own
     * @throws kelto::osa::Exception for an option on the command line and for want of descriptors; what was built by
     * then is torn down in the order of the destructor
     */
    Application(int argc, char** argv, EventMonitor::SourceFactory createSource = {});

    /** Gives the signals back their default actions, then stops and destroys everything. */
    ~Application();

    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    /** Reloads at every SIGHUP; returns at the first SIGINT or SIGTERM. Throws kelto::osa::Exception if it cannot wait.
     */
    void Run();

    /**
     * Fetches the settings and configures the event monitor anew. A std::exception on the way is logged; the daemon
     * goes on with what there is then.
     *
     * @throws kelto::osa::Exception for anything thrown that is no std::exception
     */
    void Reload();

    /** Reacts to a signal. Called in signal handlers, on any thread. */
    void HandleSignal(int signal);

private:
    explicit Application(EventMonitor::SourceFactory createSource);

    static void ParseCommandLine(int argc, char** argv);
    void CreateSelfPipe();
    void CloseSelfPipe();
    void WaitForCommands();
    bool WaitForInput() const;

    core::Logger* logger;
    std::unique_ptr<settings::LogManager> logManager;
    settings::KeltoSettingsClient settingsClient;
    std::set<std::string> settingsGroups;
    EventMonitor eventMonitor;
    std::array<int, 2> pipeFds = {-1, -1};
};

}  // namespace kelto::halvek
