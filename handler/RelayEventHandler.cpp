#include "handler/RelayEventHandler.h"

#include "env/HalvekEnv.h"
#include "env/HandlerRegistry.h"
#include "env/SettingsReader.h"
#include "kelto/core/Logger.h"
#include "kelto/osa/Exception.h"

#include <algorithm>
#include <array>

namespace kelto::halvek::handler {

namespace {

std::unique_ptr<EventHandler> Create(HalvekEnv* env) {
    return std::make_unique<RelayEventHandler>(env->GetMsgBus());
}

constexpr HandlerRegistration registration{"Relay", Create, 0};
[[gnu::init_priority(RegisterRelay)]] const HandlerRegistrar registrar(&registration);

bool HasRelaySettings(const SettingsReader& reader) {
    constexpr auto& keys = RelayEventHandler::keys;
    constexpr std::array names = {keys.Boolean("Polarity").name, keys.Integer("Mode").name,
                                  keys.Integer("OnInterval.msec").name, keys.Integer("OffInterval.msec").name,
                                  keys.Integer("PulseCount").name};
    return std::any_of(names.begin(), names.end(), [&](const char* name) { return reader.Has(name); });
}

}  // namespace

RelayEventHandler::RelayEventHandler(msgbus::IMsgBus* bus)
    : RelayEventHandler(interfaces::IRelayV3Provider::CreateClient(bus)) {}

RelayEventHandler::RelayEventHandler(std::unique_ptr<interfaces::IRelayV3Provider> client)
    : logger(core::Logger::GetLogger("halvek")), relayClient(std::move(client)) {}

void RelayEventHandler::Configure(const core::IniFile::Group& group) {
    EventHandler::Configure(group);
    Settings read = settings.Copy();
    try {
        ReadSettings(group, read);
    } catch (...) {
        // What has been read until then holds.
        settings.Store(read);
        throw;
    }
    settings.Store(read);
    logger.Information("Configured relay at index: %d", read.index);
}

void RelayEventHandler::ReadSettings(const core::IniFile::Group& group, Settings& read) const {
    const SettingsReader reader(group);
    read.index = reader.Read(keys.Integer("Index"));
    ReadBankName(reader, read.bankName);
    if (!HasRelaySettings(reader)) {
        return;
    }
    read.hasExplicitSettings = true;
    read.polarity = reader.Read(keys.Boolean("Polarity"));
    read.mode = reader.Read(keys.Integer("Mode"));
    read.onIntervalMs = reader.Read(keys.Integer("OnInterval.msec"));
    read.offIntervalMs = reader.Read(keys.Integer("OffInterval.msec"));
    read.pulseCount = reader.Read(keys.Integer("PulseCount"));
}

/** Without the key, the first bank that the service does not call remote; the name stays as it was if there is none. */
void RelayEventHandler::ReadBankName(const SettingsReader& reader, std::string& bankName) const {
    if (reader.TryRead(keys.Text("BankName"), bankName)) {
        return;
    }
    for (const std::string& name : relayClient->GetBankNames()) {
        if (!relayClient->IsRemote(name)) {
            bankName = name;
            return;
        }
    }
}

bool RelayEventHandler::IsConfigured() const {
    return settings.Copy().index != notConfigured;
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
    Settings relay = settings.Copy();
    if (relay.hasExplicitSettings) {
        relayClient->SetConfiguration(relay.bankName, relay.index, relay.polarity, relay.mode, relay.onIntervalMs,
                                      relay.offIntervalMs, relay.pulseCount);
    } else {
        bool polarity = false;
        // By design the polarity is the call's result, not the polarity that it reports.
        relay.polarity = relayClient->GetConfiguration(relay.bankName, relay.index, polarity, relay.mode,
                                                       relay.onIntervalMs, relay.offIntervalMs, relay.pulseCount);
        settings.Store(relay);
    }
    relayClient->Activate(relay.bankName, relay.index, relay.mode);
}

}  // namespace kelto::halvek::handler
