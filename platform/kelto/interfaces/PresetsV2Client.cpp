#include "kelto/interfaces/IPresetsV2Provider.h"
#include "kelto/msgbus/ProviderCall.h"

namespace kelto::interfaces {

namespace {

constexpr const char* provider = "PresetsV2";

class PresetsV2Client : public IPresetsV2Provider {
public:
    void GoTo(const std::string& id, double speed, int32_t level) override {
        msgbus::ProviderCall call(provider, "GoTo");
        call.Append(id).Append(speed).Append(level).Send();
    }

    bool IsAt(const std::string& id) override {
        msgbus::ProviderCall call(provider, "IsAt");
        call.Append(id).Send();
        return call.ReadBool();
    }
};

}  // namespace

std::unique_ptr<IPresetsV2Provider> IPresetsV2Provider::CreateClient(msgbus::IMsgBus*) {
    return std::make_unique<PresetsV2Client>();
}

}  // namespace kelto::interfaces
