#pragma once

#include "event/Event.h"
#include "event/IConfigurable.h"
#include "handler/FilterChain.h"

#include <memory>

namespace kelto::halvek {

/**
 * The base of every action: decides whether an event is let through and has the subclass act on it.
 *
 * Made and configured by the event monitor, which owns it; called on the threads of the sources that it is attached to,
 * on two at once if there are two such sources. Owns its filter chain.
 */
class EventHandler : public virtual IConfigurable {
public:
    EventHandler();

    /** Logs the group and configures the filter chain from it. Subclasses that override it call it first. */
    void Configure(const core::IniFile::Group& group) override;

    bool IsConfigured() const override = 0;

    ~EventHandler() override = default;

    /**
     * The action. It may block, which delays the next event of the same source only.
     *
     * It catches and logs its own failures: what leaves it costs the handlers behind it the event.
     */
    virtual void PerformAction(Event& event) = 0;

    /**
     * Acts on an event unless the filter chain drops it.
     *
     * @throws kelto::osa::Exception if the handler is not configured, and what PerformAction throws
     */
    void HandleEvent(Event& event);

private:
    const std::unique_ptr<FilterChain> filterChain;
};

}  // namespace kelto::halvek
