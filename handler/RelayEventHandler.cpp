#include "handler/RelayEventHandler.h"

#include "kelto/core/Logger.h"
#include "kelto/osa/Exception.h"
#include "monitor/HalvekEnv.h"
#include "monitor/HandlerRegistry.h"

#include <algorithm>
#include <array>

namespace kelto::halvek::handler {

namespace {

constexpr int32_t highestMode = 3;

std::unique_ptr<EventHandler> Create(HalvekEnv* env) {
    return std::make_unique<RelayEventHandler>(env->GetMsgBus());
}

constexpr HandlerRegistration registration{"Relay", Create, 0};
[[gnu::init_priority(RegisterRelay)]] const HandlerRegistrar registrar(&registration);

bool HasRelaySettings(const core::IniFile::Group& group) {
    constexpr std::array<const char*, 5> keys = {"Polarity", "Mode", "OnInterval.msec", "OffInterval.msec",
                                                 "PulseCount"};
    return std::any_of(keys.begin(), keys.end(), [&](const char* key) { return group.count(key) != 0; });
}

}  // namespace

RelayEventHandler::RelayEventHandler(msgbus::IMsgBus* bus)
    : RelayEventHandler(interfaces::IRelayV3Provider::CreateClient(bus)) {}

RelayEventHandler::RelayEventHandler(std::unique_ptr<interfaces::IRelayV3Provider> client)
    : logger(core::Logger::GetLogger("halvek")), relayClient(std::move(client)) {}

void RelayEventHandler::Configure(const core::IniFile::Group& group) {
    EventHandler::Configure(group);
    Settings read = CopySettings();
    try {
        ReadSettings(group, read);
    } catch (...) {
        // What has been read until then holds.
        StoreSettings(read);
        throw;
    }
    StoreSettings(read);
    logger.Information("Configured relay at index: %d", read.index);
}

void RelayEventHandler::ReadSettings(const core::IniFile::Group& group, Settings& read) const {
    read.index = core::IniFile::GetIntOrDefaultFromGroup(group, "Index", 0);
    ReadBankName(group, read.bankName);
    if (!HasRelaySettings(group)) {
        return;
    }
    read.hasExplicitSettings = true;
    read.polarity = core::IniFile::GetBoolOrDefaultFromGroup(group, "Polarity", false);
    read.mode = ReadMode(group);
    read.onIntervalMs = ReadInterval(group, "OnInterval.msec");
    read.offIntervalMs = ReadInterval(group, "OffInterval.msec");
    read.pulseCount = ReadPulseCount(group);
}

/** Without the key, the first bank that the service does not call remote; the name stays as it was if there is none. */
void RelayEventHandler::ReadBankName(const core::IniFile::Group& group, std::string& bankName) const {
    if (core::IniFile::TryGetValueFromGroup(group, "BankName", bankName)) {
        return;
    }
    for (const std::string& name : relayClient->GetBankNames()) {
        if (!relayClient->IsRemote(name)) {
            bankName = name;
            return;
        }
    }
}

int32_t RelayEventHandler::ReadMode(const core::IniFile::Group& group) {
    const int32_t mode = core::IniFile::GetIntOrDefaultFromGroup(group, "Mode", defaultMode);
    return mode < 0 || mode > highestMode ? defaultMode : mode;
}

int32_t RelayEventHandler::ReadInterval(const core::IniFile::Group& group, const char* key) {
    const int32_t interval = core::IniFile::GetIntOrDefaultFromGroup(group, key, defaultIntervalMs);
    return interval < 0 ? defaultIntervalMs : interval;
}

int32_t RelayEventHandler::ReadPulseCount(const core::IniFile::Group& group) {
    const int32_t count = core::IniFile::GetIntOrDefaultFromGroup(group, "PulseCount", defaultPulseCount);
    return count < 1 ? defaultPulseCount : count;
}

bool RelayEventHandler::IsConfigured() const {
    const std::lock_guard lock(settingsMutex);
    return settings.index != notConfigured;
}

void RelayEventHandler::PerformAction(Event&) {
    try {
        if (!IsConfigured()) {
            throw osa::Exception("RelayEventHandler: not configured");
        }
        DriveRelay();
    } catch (const osa::Exception& exception) {
        logger.Error("%s", exception.what());
    } catch (...) {
        logger.Error("RelayEventHandler: Error, unknown exception caught");
    }
}

void RelayEventHandler::DriveRelay() {
    Settings relay = CopySettings();
    if (relay.hasExplicitSettings) {
        relayClient->SetConfiguration(relay.bankName, relay.index, relay.polarity, relay.mode, relay.onIntervalMs,
                                      relay.offIntervalMs, relay.pulseCount);
    } else {
        bool polarity = false;
        // The polarity is the call's result, not the polarity that it reports. Meant so.
        relay.polarity = relayClient->GetConfiguration(relay.bankName, relay.index, polarity, relay.mode,
                                                       relay.onIntervalMs, relay.offIntervalMs, relay.pulseCount);
        StoreSettings(relay);
    }
    relayClient->Activate(relay.bankName, relay.index, relay.mode);
}

RelayEventHandler::Settings RelayEventHandler::CopySettings() const {
    const std::lock_guard lock(settingsMutex);
    return settings;
}

void RelayEventHandler::StoreSettings(const Settings& newSettings) {
    const std::lock_guard lock(settingsMutex);
    settings = newSettings;
}

}  // namespace kelto::halvek::handler
