#include "camera/service/AlarmV3.h"

#include "camera/runtime/Output.h"

namespace kelto::vcam {

namespace {

constexpr size_t inputsPerBank = 8;

}  // namespace

const sd_bus_vtable AlarmV3::methods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("GetBankNames", SD_BUS_NO_ARGS, SD_BUS_RESULT("as", banks), OnCall<&AlarmV3::GetBankNames>,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("IsRemote", SD_BUS_ARGS("s", bank), SD_BUS_RESULT("b", remote), OnCall<&AlarmV3::IsRemote>,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_ARGS("StateChanged", SD_BUS_ARGS("s", bank, "i", index, "b", active), 0),
    SD_BUS_VTABLE_END,
};

AlarmV3::AlarmV3(const ProviderContext& context)
    : BankProvider(context, "AlarmV3", methods, "alarm input", inputsPerBank) {}

void AlarmV3::SetState(const std::string& bank, int32_t index, bool active) {
    Find(bank, index);
    Say("alarm %s:%d %s", bank.c_str(), index, active ? "active" : "inactive");
    Emit("StateChanged", "sib", bank.c_str(), index, static_cast<int>(active));
}

}  // namespace kelto::vcam
