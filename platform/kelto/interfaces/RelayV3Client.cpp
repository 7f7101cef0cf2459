#include "kelto/interfaces/IRelayV3Provider.h"
#include "kelto/msgbus/ProviderCall.h"

namespace kelto::interfaces {

namespace {

constexpr const char* provider = "RelayV3";

class RelayV3Client : public IRelayV3Provider {
public:
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

    bool GetConfiguration(const std::string& bankName, int32_t index, bool& polarity, int32_t& mode,
                          int32_t& onIntervalMs, int32_t& offIntervalMs, int32_t& pulseCount) override {
        msgbus::ProviderCall call(provider, "GetConfiguration");
        call.Append(bankName).Append(index).Send();
        const bool result = call.ReadBool();
        polarity = call.ReadBool();
        mode = call.ReadInt();
        onIntervalMs = call.ReadInt();
        offIntervalMs = call.ReadInt();
        pulseCount = call.ReadInt();
        return result;
    }

    bool SetConfiguration(const std::string& bankName, int32_t index, bool polarity, int32_t mode, int32_t onIntervalMs,
                          int32_t offIntervalMs, int32_t pulseCount) override {
        msgbus::ProviderCall call(provider, "SetConfiguration");
        call.Append(bankName).Append(index).AppendBool(polarity).Append(mode);
        call.Append(onIntervalMs).Append(offIntervalMs).Append(pulseCount).Send();
        return call.ReadBool();
    }

    bool Activate(const std::string& bankName, int32_t index, int32_t mode) override {
        msgbus::ProviderCall call(provider, "Activate");
        call.Append(bankName).Append(index).Append(mode).Send();
        return call.ReadBool();
    }
};

}  // namespace

std::unique_ptr<IRelayV3Provider> IRelayV3Provider::CreateClient(msgbus::IMsgBus*) {
    return std::make_unique<RelayV3Client>();
}

}  // namespace kelto::interfaces
