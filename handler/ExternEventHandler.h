#pragma once

#include "handler/EventHandler.h"

#include <string>

namespace kelto::core {
class Logger;
}

namespace kelto::halvek::handler {

/**
 * Writes every event as a text block into the pipes of other processes: into each entry of "/var/run/halvek" whose path
 * contains the event's type or "halvek.any".
 *
 * The block has the form that the event server reads. Nothing in it is escaped. Any number of threads may act at once:
 * each action opens its own descriptors and writes a block with one system call.
 */
class ExternEventHandler : public EventHandler {
public:
    ExternEventHandler();

    /** Always true: it has no settings but its filter's. */
    bool IsConfigured() const override;
    ~ExternEventHandler() override = default;

    /**
     * Throws nothing. Does not wait for a reader; a pipe that is full is an Error, and the pipes behind it do not get
     * this event. The descriptor of such a pipe stays open.
     */
    void PerformAction(Event& event) override;

private:
    void WriteToAllFifos(Event& event);
    void WriteToFifo(const std::string& fifoPath, const std::string& block);

    core::Logger& logger;
};

}  // namespace kelto::halvek::handler
