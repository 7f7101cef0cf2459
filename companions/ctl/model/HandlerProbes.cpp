#include "companions/ctl/model/HandlerProbes.h"

#include "companions/ctl/Failure.h"
#include "companions/ctl/model/HandlerProbe.h"
#include "companions/ctl/model/Unasked.h"
#include "env/HalvekEnv.h"
#include "handler/EmailEventHandler.h"
#include "handler/ExternEventHandler.h"
#include "handler/FolderEventHandler.h"
#include "handler/FtpEventHandler.h"
#include "handler/PresetEventHandler.h"
#include "handler/RelayEventHandler.h"
#include "handler/TourEventHandler.h"

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>

namespace kelto::halvek::ctl {

namespace {

/** Creators take no argument for it. */
Ledger* currentLedger = nullptr;

template <typename Handler>
std::unique_ptr<EventHandler> Create(HalvekEnv*) {
    return std::make_unique<HandlerProbe<Handler>>(*currentLedger);
}

template <typename Handler>
std::unique_ptr<EventHandler> CreateOnBus(HalvekEnv* env) {
    return std::make_unique<HandlerProbe<Handler>>(*currentLedger, env->GetMsgBus());
}

class RelayProbe : public HandlerProbe<handler::RelayEventHandler> {
public:
    explicit RelayProbe(Ledger& probeLedger)
        : HandlerProbe(probeLedger, std::make_unique<UnaskedRelays>(&static_cast<ProbedHandler&>(*this).asksBus)) {}
};

std::unique_ptr<EventHandler> CreateRelay(HalvekEnv*) {
    return std::make_unique<RelayProbe>(*currentLedger);
}

std::unique_ptr<EventHandler> CreateExtern(HalvekEnv*) {
    auto probe = std::make_unique<HandlerProbe<handler::ExternEventHandler>>(*currentLedger);
    probe->name = "Extern";
    return probe;
}

constexpr std::array probes = {
    HandlerRegistration{"Tour", CreateOnBus<handler::TourEventHandler>, 0},
    HandlerRegistration{"Folder", Create<handler::FolderEventHandler>, 0},
    HandlerRegistration{"Ftp", Create<handler::FtpEventHandler>, 0},
    HandlerRegistration{"Preset", CreateOnBus<handler::PresetEventHandler>, 0},
    HandlerRegistration{"Extern", CreateExtern, 1},
    HandlerRegistration{"Email", Create<handler::EmailEventHandler>, 0},
    HandlerRegistration{"Relay", CreateRelay, 0},
};

const HandlerRegistration& ProbeOf(const HandlerRegistration& type) {
    const auto* const probe = std::find_if(probes.begin(), probes.end(), [&](const HandlerRegistration& one) {
        return std::string_view(one.name) == type.name && one.kind == type.kind;
    });
    if (probe == probes.end()) {
        throw Failure(std::string("the model of the daemon has no probe for handlers of type ") + type.name);
    }
    return *probe;
}

}  // namespace

void HandlerProbes::Register(Ledger& ledger, HandlerRegistry& registry) {
    currentLedger = &ledger;
    const auto& types = HandlerRegistry::Instance().GetRegistrations();
    // Each goes to the front.
    std::for_each(types.rbegin(), types.rend(),
                  [&](const HandlerRegistration* type) { registry.Register(&ProbeOf(*type)); });
}

}  // namespace kelto::halvek::ctl
