#include "handler/HandlerKeys.h"

#include "handler/EmailEventHandler.h"
#include "handler/FilterChain.h"
#include "handler/FolderEventHandler.h"
#include "handler/FtpEventHandler.h"
#include "handler/PresetEventHandler.h"
#include "handler/RelayEventHandler.h"
#include "handler/TourEventHandler.h"

#include <array>

namespace kelto::halvek {

namespace {

constexpr std::array handlers = {
    HandlerKeys{"Tour", handler::TourEventHandler::keys.List()},
    HandlerKeys{"Folder", handler::FolderEventHandler::keys.List()},
    HandlerKeys{"Ftp", handler::FtpEventHandler::keys.List()},
    HandlerKeys{"Preset", handler::PresetEventHandler::keys.List()},
    HandlerKeys{"Extern", {}},
    HandlerKeys{"Email", handler::EmailEventHandler::keys.List()},
    HandlerKeys{"Relay", handler::RelayEventHandler::keys.List()},
};

}  // namespace

std::span<const HandlerKeys> KeysOfHandlers() {
    return handlers;
}

SettingsKeyList KeysOfEveryHandler() {
    return FilterChain::keys.List();
}

}  // namespace kelto::halvek
