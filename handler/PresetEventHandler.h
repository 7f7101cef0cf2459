#pragma once

#include "env/SettingsKeys.h"
#include "handler/EventHandler.h"
#include "kelto/interfaces/IPresetsV2Provider.h"

#include <memory>
#include <string>

namespace kelto::core {
class Logger;
}

namespace kelto::halvek::handler {

/**
 * Moves the head to a stored position, unless it stands there already.
 *
 * An alarm goes out at level 400, any other event at 900. Owns its client. May act on several threads at once.
 */
class PresetEventHandler : public EventHandler {
public:
    static constexpr SettingsKeys keys{TextKey{.name = "Id"}};

    /** Makes a client on a bus. */
    explicit PresetEventHandler(msgbus::IMsgBus* bus);

    /** Reads "Id". */
    void Configure(const core::IniFile::Group& group) override;
    /** Whether there is an id that is not empty. */
    bool IsConfigured() const override;
    ~PresetEventHandler() override = default;

    /** Throws nothing. Blocks for two calls, 5 s each at most. */
    void PerformAction(Event& event) override;

private:
    core::Logger& logger;
    std::string id;
    const std::unique_ptr<interfaces::IPresetsV2Provider> client;
};

}  // namespace kelto::halvek::handler
