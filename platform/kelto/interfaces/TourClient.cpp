#include "kelto/interfaces/ITourProvider.h"
#include "kelto/msgbus/ProviderCall.h"

namespace kelto::interfaces {

namespace {

class TourClient : public ITourProvider {
public:
    void Start(const std::string& id, int32_t level) override {
        msgbus::ProviderCall call("Tour", "Start");
        call.Append(id).Append(level).Send();
    }
};

}  // namespace

std::unique_ptr<ITourProvider> ITourProvider::CreateClient(msgbus::IMsgBus*) {
    return std::make_unique<TourClient>();
}

}  // namespace kelto::interfaces
