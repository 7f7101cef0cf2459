#include "kelto/interfaces/IAlarmV3Provider.h"
#include "kelto/interfaces/NotificationPoint.h"
#include "kelto/interfaces/ProviderSignal.h"
#include "kelto/msgbus/ProviderCall.h"

namespace kelto::interfaces {

namespace {

constexpr const char* provider = "AlarmV3";

IAlarmV3Provider::StateChangeEventArgs DecodeStateChanged(const msgbus::MsgBusMsg& message) {
    CheckSignature(message, "sib");
    return {.bankName = std::get<std::string>(message.arguments[0].content),
            .index = std::get<int32_t>(message.arguments[1].content),
            .active = std::get<bool>(message.arguments[2].content)};
}

class AlarmV3Client : public IAlarmV3Provider {
public:
    explicit AlarmV3Client(msgbus::IMsgBus* bus)
        : stateChange(bus, ProviderSignal(provider, "StateChanged"), DecodeStateChanged) {}

    std::vector<std::string> GetBankNames() override {
        msgbus::ProviderCall call(provider, "GetBankNames");
        call.Send();
        return call.ReadStrings();
    }

    bool IsRemote(const std::string& bankName) override {
        msgbus::ProviderCall call(provider, "IsRemote");
        call.Append(bankName).Send();
        return call.ReadBool();
    }

    INotificationPoint<StateChangeEventArgs>& OnStateChange() override { return stateChange; }

private:
    NotificationPoint<StateChangeEventArgs> stateChange;
};

}  // namespace

std::unique_ptr<IAlarmV3Provider> IAlarmV3Provider::CreateClient(msgbus::IMsgBus* bus) {
    return std::make_unique<AlarmV3Client>(bus);
}

}  // namespace kelto::interfaces
