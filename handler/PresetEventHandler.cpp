#include "handler/PresetEventHandler.h"

#include "env/HalvekEnv.h"
#include "env/HandlerRegistry.h"
#include "env/SettingsReader.h"
#include "handler/CommandLevel.h"
#include "kelto/core/Logger.h"
#include "kelto/osa/Exception.h"

namespace kelto::halvek::handler {

namespace {

constexpr double fullSpeed = 1.0;

std::unique_ptr<EventHandler> Create(HalvekEnv* env) {
    return std::make_unique<PresetEventHandler>(env->GetMsgBus());
}

constexpr HandlerRegistration registration{"Preset", Create, 0};
[[gnu::init_priority(RegisterPreset)]] const HandlerRegistrar registrar(&registration);

}  // namespace

PresetEventHandler::PresetEventHandler(msgbus::IMsgBus* bus)
    : logger(core::Logger::GetLogger("halvek")), client(interfaces::IPresetsV2Provider::CreateClient(bus)) {}

void PresetEventHandler::Configure(const core::IniFile::Group& group) {
    EventHandler::Configure(group);
    SettingsReader(group).TryRead(keys.Text("Id"), id);
    logger.Information("Configured preset to: \"%s\"", id.c_str());
}

bool PresetEventHandler::IsConfigured() const {
    return !id.empty();
}

void PresetEventHandler::PerformAction(Event& event) {
    try {
        if (!IsConfigured()) {
            throw osa::Exception("PresetEventHandler: not configured");
        }
        logger.Debug("PresetEventHandler::PerformAction");
        if (!client->IsAt(id)) {
            client->GoTo(id, fullSpeed, CommandLevel(event));
        }
    } catch (const osa::Exception& exception) {
        logger.Error("PresetEventHandler: Error: %s", exception.what());
    } catch (...) {
        logger.Error("PresetEventHandler: Error, unknown exception caught");
    }
}

}  // namespace kelto::halvek::handler
