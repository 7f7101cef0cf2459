#include "handler/TourEventHandler.h"

#include "env/HalvekEnv.h"
#include "env/HandlerRegistry.h"
#include "env/SettingsReader.h"
#include "handler/CommandLevel.h"
#include "kelto/core/Logger.h"
#include "kelto/osa/Exception.h"

namespace kelto::halvek::handler {

namespace {

std::unique_ptr<EventHandler> Create(HalvekEnv* env) {
    return std::make_unique<TourEventHandler>(env->GetMsgBus());
}

constexpr HandlerRegistration registration{"Tour", Create, 0};
[[gnu::init_priority(RegisterTour)]] const HandlerRegistrar registrar(&registration);

}  // namespace

TourEventHandler::TourEventHandler(msgbus::IMsgBus* bus)
    : logger(core::Logger::GetLogger("halvek")), client(interfaces::ITourProvider::CreateClient(bus)) {}

void TourEventHandler::Configure(const core::IniFile::Group& group) {
    EventHandler::Configure(group);
    SettingsReader(group).TryRead(keys.Text("Id"), id);
    // "preset" for a tour too: whoever reads the log has always known it so.
    logger.Information("Configured preset to: \"%s\"", id.c_str());
}

bool TourEventHandler::IsConfigured() const {
    return !id.empty();
}

void TourEventHandler::PerformAction(Event& event) {
    try {
        if (!IsConfigured()) {
            throw osa::Exception("TourEventHandler: not configured");
        }
        client->Start(id, CommandLevel(event));
    } catch (const osa::Exception& exception) {
        logger.Error("%s", exception.what());
    } catch (...) {
        logger.Error("TourEventHandler: Error, unknown exception caught");
    }
}

}  // namespace kelto::halvek::handler
