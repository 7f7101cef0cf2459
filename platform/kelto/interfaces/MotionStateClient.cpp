#include "kelto/interfaces/IMotionStateProvider.h"
#include "kelto/interfaces/NotificationPoint.h"
#include "kelto/interfaces/ProviderSignal.h"
#include "kelto/msgbus/ProviderCall.h"

namespace kelto::interfaces {

namespace {

constexpr const char* provider = "MotionState";

int32_t DecodeIdleChanged(const msgbus::MsgBusMsg& message) {
    CheckSignature(message, "i");
    return std::get<int32_t>(message.arguments[0].content);
}

class MotionStateClient : public IMotionStateProvider {
public:
    explicit MotionStateClient(msgbus::IMsgBus* bus)
        : idleChange(bus, ProviderSignal(provider, "IdleChanged"), DecodeIdleChanged) {}

    int32_t GetIdleState() override {
        msgbus::ProviderCall call(provider, "GetIdleState");
        call.Send();
        return call.ReadInt();
    }

    INotificationPoint<int32_t>& OnIdleChange() override { return idleChange; }

private:
    NotificationPoint<int32_t> idleChange;
};

}  // namespace

std::unique_ptr<IMotionStateProvider> IMotionStateProvider::CreateClient(msgbus::IMsgBus* bus) {
    return std::make_unique<MotionStateClient>(bus);
}

}  // namespace kelto::interfaces
