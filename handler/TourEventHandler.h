#pragma once

#include "env/SettingsKeys.h"
#include "handler/EventHandler.h"
#include "kelto/interfaces/ITourProvider.h"

#include <memory>
#include <string>

namespace kelto::core {
class Logger;
}

namespace kelto::halvek::handler {

/**
 * Starts a stored tour of the head.
 *
 * An alarm goes out at level 400, any other event at 900. Owns its client. May act on several threads at once.
 */
class TourEventHandler : public EventHandler {
public:
    static constexpr SettingsKeys keys{TextKey{.name = "Id"}};

    /** Makes a client on a bus. */
    explicit TourEventHandler(msgbus::IMsgBus* bus);

    /** Reads "Id". */
    void Configure(const core::IniFile::Group& group) override;
    /** Whether there is an id that is not empty. */
    bool IsConfigured() const override;
    ~TourEventHandler() override = default;

    /** Throws nothing. Blocks for one call, 5 s at most. */
    void PerformAction(Event& event) override;

private:
    core::Logger& logger;
    std::string id;
    const std::unique_ptr<interfaces::ITourProvider> client;
};

}  // namespace kelto::halvek::handler
