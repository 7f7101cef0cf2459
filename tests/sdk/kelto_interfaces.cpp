// A camera that has relays, driven by this process itself, and none of the other services.
#include "kelto/core/Logger.h"
#include "kelto/interfaces/AnalyticsInterface.h"
#include "kelto/interfaces/IAlarmV3Provider.h"
#include "kelto/interfaces/IMotionStateProvider.h"
#include "kelto/interfaces/IPresetsV2Provider.h"
#include "kelto/interfaces/IRelayV3Provider.h"
#include "kelto/interfaces/ITourProvider.h"
#include "kelto/osa/Exception.h"

namespace kelto::interfaces {

namespace {

/** A real one would write to the outputs where this one logs. */
class BoardRelays : public IRelayV3Provider {
public:
    std::vector<std::string> GetBankNames() override { return {"Board"}; }

    bool IsRemote(const std::string&) override { return false; }

    bool GetConfiguration(const std::string&, int32_t, bool& polarity, int32_t& mode, int32_t& onIntervalMs,
                          int32_t& offIntervalMs, int32_t& pulseCount) override {
        polarity = true;
        mode = 1;
        onIntervalMs = offIntervalMs = 500;
        pulseCount = 1;
        return true;
    }

    bool SetConfiguration(const std::string&, int32_t, bool, int32_t, int32_t, int32_t, int32_t) override {
        return true;
    }

    bool Activate(const std::string& bankName, int32_t index, int32_t mode) override {
        core::Logger::GetLogger("board").Information("relay %d of %s: mode %d", index, bankName.c_str(), mode);
        return true;
    }
};

[[noreturn]] void ThrowMissing(const char* what) {
    throw osa::Exception("This camera has no %s", what);
}

}  // namespace

std::unique_ptr<IRelayV3Provider> IRelayV3Provider::CreateClient(msgbus::IMsgBus*) {
    return std::make_unique<BoardRelays>();
}

std::unique_ptr<IAlarmV3Provider> IAlarmV3Provider::CreateClient(msgbus::IMsgBus*) {
    ThrowMissing("alarm inputs");
}

std::unique_ptr<IMotionStateProvider> IMotionStateProvider::CreateClient(msgbus::IMsgBus*) {
    ThrowMissing("head");
}

std::unique_ptr<IPresetsV2Provider> IPresetsV2Provider::CreateClient(msgbus::IMsgBus*) {
    ThrowMissing("presets");
}

std::unique_ptr<ITourProvider> ITourProvider::CreateClient(msgbus::IMsgBus*) {
    ThrowMissing("tours");
}

AnalyticsInterface::AnalyticsAlert::AnalyticsAlert(const msgbus::MsgBusMsg&) {
    ThrowMissing("analytics");
}

}  // namespace kelto::interfaces
