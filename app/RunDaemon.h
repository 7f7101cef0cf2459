#pragma once

#include "monitor/EventMonitor.h"

#include <functional>

namespace kelto::halvek {

/**
 * The whole program: starts, tells the service manager, runs to the stop and says how it ended. On the main thread,
 * once a process: afterwards the log is shut down. Throws nothing.
 *
 * @param createSource makes all sources; an empty one stands for the daemon's own
 * @param whenReady called between readiness and the loop; what it throws counts as thrown by the loop
 * @return the exit status: 0 after an orderly stop, 1 after a fatal error
 */
int RunDaemon(int argc, char** argv, EventMonitor::SourceFactory createSource = {},
              const std::function<void()>& whenReady = {});

}  // namespace kelto::halvek
