#include "camera/service/RelayV3.h"

#include "camera/runtime/Failure.h"

namespace kelto::vcam {

namespace {

constexpr size_t relaysPerBank = 4;

}  // namespace

const sd_bus_vtable RelayV3::methods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("GetBankNames", SD_BUS_NO_ARGS, SD_BUS_RESULT("as", banks), OnCall<&RelayV3::GetBankNames>,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("IsRemote", SD_BUS_ARGS("s", bank), SD_BUS_RESULT("b", remote), OnCall<&RelayV3::IsRemote>,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS(
        "GetConfiguration", SD_BUS_ARGS("s", bank, "i", index),
        SD_BUS_RESULT("b", result, "b", polarity, "i", mode, "i", onMs, "i", offMs, "i", pulseCount),
        OnCall<&RelayV3::GetConfiguration>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS(
        "SetConfiguration",
        SD_BUS_ARGS("s", bank, "i", index, "b", polarity, "i", mode, "i", onMs, "i", offMs, "i", pulseCount),
        SD_BUS_RESULT("b", result), OnCall<&RelayV3::SetConfiguration>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("Activate", SD_BUS_ARGS("s", bank, "i", index, "i", mode), SD_BUS_RESULT("b", result),
                            OnCall<&RelayV3::Activate>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

RelayV3::RelayV3(const ProviderContext& context) : BankProvider(context, "RelayV3", methods, "relay", relaysPerBank) {
    for (const char* const bank : bankNames) {
        for (size_t index = 0; index < relaysPerBank; ++index) {
            relays.push_back(std::make_unique<Relay>(loop, std::string(bank) + ":" + std::to_string(index)));
        }
    }
}

void RelayV3::AppendState(sd_bus_message* reply) const {
    Check(sd_bus_message_open_container(reply, 'a', "(sibbiiiiii)"), "Cannot answer");
    for (size_t position = 0; position < relays.size(); ++position) {
        const char* const bank = bankNames[position / relaysPerBank];
        const int32_t index = static_cast<int32_t>(position % relaysPerBank);
        const Relay& relay = *relays[position];
        const RelayConfiguration& configuration = relay.GetConfiguration();
        Check(sd_bus_message_append(reply, "(sibbiiiiii)", bank, index, static_cast<int>(relay.IsOn()),
                                    static_cast<int>(configuration.polarity), configuration.mode, configuration.onMs,
                                    configuration.offMs, configuration.pulseCount, relay.GetPulse(), relay.GetPulses()),
              "Cannot answer");
    }
    Check(sd_bus_message_close_container(reply), "Cannot answer");
}

void RelayV3::GetConfiguration(Arguments& arguments, Results& results) {
    const RelayConfiguration& configuration = ReadRelay(arguments).GetConfiguration();
    results.AppendBool(true);
    results.AppendBool(configuration.polarity);
    results.AppendInt(configuration.mode);
    results.AppendInt(configuration.onMs);
    results.AppendInt(configuration.offMs);
    results.AppendInt(configuration.pulseCount);
}

void RelayV3::SetConfiguration(Arguments& arguments, Results& results) {
    Relay& relay = ReadRelay(arguments);
    RelayConfiguration configuration;
    configuration.polarity = arguments.ReadBool();
    configuration.mode = arguments.ReadInt();
    configuration.onMs = arguments.ReadInt();
    configuration.offMs = arguments.ReadInt();
    configuration.pulseCount = arguments.ReadInt();
    relay.SetConfiguration(configuration);
    results.AppendBool(true);
}

void RelayV3::Activate(Arguments& arguments, Results& results) {
    Relay& relay = ReadRelay(arguments);
    relay.Activate(arguments.ReadInt());
    results.AppendBool(true);
}

Relay& RelayV3::ReadRelay(Arguments& arguments) {
    const std::string bank = arguments.ReadString();
    return *relays[Find(bank, arguments.ReadInt())];
}

}  // namespace kelto::vcam
