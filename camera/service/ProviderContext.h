#pragma once

namespace kelto::vcam {

class ActionLog;
class Bus;
class EventLoop;

/** What every provider works with; all of it outlives the provider. */
struct ProviderContext {
    Bus& bus;
    EventLoop& loop;
    ActionLog& actions;  ///< where its calls are put down
};

}  // namespace kelto::vcam
