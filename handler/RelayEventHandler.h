#pragma once

#include "env/Guarded.h"
#include "env/SettingsKeys.h"
#include "handler/EventHandler.h"
#include "kelto/interfaces/IRelayV3Provider.h"

#include <cstdint>
#include <memory>
#include <string>

namespace kelto::core {
class Logger;
}

namespace kelto::halvek {
class SettingsReader;
}

namespace kelto::halvek::handler {

/**
 * Drives one relay output at every event, whatever the event holds.
 *
 * With at least one of the relay's settings in its group it sets the relay up anew at every action; without any it
 * reads how the relay is set up. Owns its client. May act on several threads at once.
 */
class RelayEventHandler : public EventHandler {
public:
    static constexpr SettingsKeys keys{
        IntegerKey{.name = "Index", .absent = 0, .lowest = 0},
        TextKey{.name = "BankName"},
        BooleanKey{.name = "Polarity", .absent = false},
        IntegerKey{.name = "Mode", .absent = 3, .lowest = 0, .highest = 3, .defaultIfOutOfRange = true},
        IntegerKey{.name = "OnInterval.msec", .absent = 500, .lowest = 0, .defaultIfOutOfRange = true, .unit = "ms"},
        IntegerKey{.name = "OffInterval.msec", .absent = 500, .lowest = 0, .defaultIfOutOfRange = true, .unit = "ms"},
        IntegerKey{.name = "PulseCount", .absent = 1, .lowest = 1, .defaultIfOutOfRange = true}};

    static constexpr int32_t notConfigured = -1;

    /** How the relay is to be driven. */
    struct Settings {
        std::string bankName;
        int32_t index = notConfigured;
        bool hasExplicitSettings = false;
        bool polarity = false;
        int32_t mode = keys.Integer("Mode").absent;
        int32_t onIntervalMs = keys.Integer("OnInterval.msec").absent;
        int32_t offIntervalMs = keys.Integer("OffInterval.msec").absent;
        int32_t pulseCount = keys.Integer("PulseCount").absent;
    };

    /** Makes a client on a bus. */
    explicit RelayEventHandler(msgbus::IMsgBus* bus);
    explicit RelayEventHandler(std::unique_ptr<interfaces::IRelayV3Provider> client);

    /**
     * Reads "Index", by default 0, "BankName", "Polarity", "Mode", "OnInterval.msec", "OffInterval.msec" and
     * "PulseCount". Without "BankName" it asks the service for the first bank that is not remote. Numbers out of range
     * are corrected silently.
     *
     * @throws kelto::osa::Exception for a value that cannot be read, and if the service does not answer, within 5 s a
     * query
     */
    void Configure(const core::IniFile::Group& group) override;
    /** Whether the index is another than -1. */
    bool IsConfigured() const override;
    ~RelayEventHandler() override = default;

    /** Throws nothing. Blocks for two calls, 5 s each at most. */
    void PerformAction(Event& event) override;

    /** What holds now: as configured, or as the relay was set up at the last action. Any thread. */
    Settings GetSettings() const { return settings.Copy(); }

private:
    void ReadSettings(const core::IniFile::Group& group, Settings& read) const;
    void ReadBankName(const SettingsReader& reader, std::string& bankName) const;
    void DriveRelay();

    core::Logger& logger;
    const std::unique_ptr<interfaces::IRelayV3Provider> relayClient;

    Guarded<Settings> settings;
};

}  // namespace kelto::halvek::handler
