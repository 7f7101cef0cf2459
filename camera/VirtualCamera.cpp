#include "camera/VirtualCamera.h"

#include "camera/runtime/EventLoop.h"
#include "camera/runtime/Output.h"
#include "camera/runtime/Refusal.h"

namespace kelto::vcam {

namespace {

constexpr const char* alertPath = "/com/zentu/analytics";
constexpr const char* alertInterface = "com.zentu.analytics";
constexpr const char* alertSignal = "AnalyticsAlert";

}  // namespace

const sd_bus_vtable VirtualCamera::methods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("SetAlarm", SD_BUS_ARGS("s", bank, "i", index, "b", active), SD_BUS_NO_RESULT,
                            OnCall<&VirtualCamera::SetAlarm>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("SetIdleState", SD_BUS_ARGS("i", state), SD_BUS_NO_RESULT,
                            OnCall<&VirtualCamera::SetIdleState>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("SetRecording", SD_BUS_ARGS("b", a, "b", b), SD_BUS_NO_RESULT,
                            OnCall<&VirtualCamera::SetRecording>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS(
        "RaiseAlert",
        SD_BUS_ARGS("s", source, "s", class, "s", analyticsType, "s", ruleName, "s", ruleDescription, "a(dd)",
                    rulePoints, "a(dd)", boxPoints, "s", mediaType, "s", mediaUrl),
        SD_BUS_NO_RESULT, OnCall<&VirtualCamera::RaiseAlert>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("GetActions", SD_BUS_NO_ARGS, SD_BUS_RESULT("a(tss)", actions),
                            OnCall<&VirtualCamera::GetActions>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("ClearActions", SD_BUS_NO_ARGS, SD_BUS_NO_RESULT, OnCall<&VirtualCamera::ClearActions>,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("SetFault", SD_BUS_ARGS("s", provider, "s", kind), SD_BUS_NO_RESULT,
                            OnCall<&VirtualCamera::SetFault>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS(
        "GetState", SD_BUS_NO_ARGS,
        SD_BUS_RESULT("a(sibbiiiiii)", relays, "(ddtiai)", head, "(bb)", recording, "a(ss)", faults),
        OnCall<&VirtualCamera::GetState>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_ARGS("Said", SD_BUS_ARGS("t", time, "s", text), 0),
    SD_BUS_VTABLE_END,
};

VirtualCamera::VirtualCamera(Bus& systemBus, EventLoop& eventLoop)
    : Service(systemBus, "VirtualCamera", methods),
      context{.bus = systemBus, .loop = eventLoop, .actions = actions},
      head(eventLoop, [this](int32_t state) { motionState.EmitIdleChanged(state); }),
      alarms(context),
      relays(context),
      motionState(context, head),
      presets(context, head),
      tour(context, head),
      recordingInformation(context),
      providers{&alarms, &relays, &presets, &tour, &motionState, &recordingInformation},
      lines([this](const char* line) { TellLine(line); }) {}

void VirtualCamera::TakeNames() {
    for (const Provider* const provider : providers) {
        bus.TakeName(provider->GetBusName());
    }
    // Last, so that whoever sees this one can use all others.
    bus.TakeName(GetBusName());
}

void VirtualCamera::TellLine(const char* line) {
    // Standard output has it in any case: a bus that is gone ends us, and text that is no UTF-8 cannot go over one.
    static_cast<void>(
        sd_bus_emit_signal(bus.Get(), GetPath().c_str(), GetBusName().c_str(), "Said", "ts", EventLoop::Now(), line));
}

void VirtualCamera::SetAlarm(Arguments& arguments, Results&) {
    const std::string bank = arguments.ReadString();
    const int32_t index = arguments.ReadInt();
    alarms.SetState(bank, index, arguments.ReadBool());
}

void VirtualCamera::SetIdleState(Arguments& arguments, Results&) {
    head.SetIdleState(arguments.ReadInt());
}

void VirtualCamera::SetRecording(Arguments& arguments, Results&) {
    const bool first = arguments.ReadBool();
    recordingInformation.SetRecording(first, arguments.ReadBool());
}

void VirtualCamera::RaiseAlert(Arguments& arguments, Results&) {
    sd_bus_message* made = nullptr;
    Check(sd_bus_message_new_signal(bus.Get(), &made, alertPath, alertInterface, alertSignal), "Cannot raise an alert");
    const BusMessagePtr alert(made);
    arguments.CopyTo(alert.get());
    Check(sd_bus_message_send(alert.get()), "Cannot raise an alert");
    Say("analytics alert");
}

void VirtualCamera::GetActions(Arguments&, Results& results) {
    sd_bus_message* const reply = results.GetMessage();
    Check(sd_bus_message_open_container(reply, 'a', "(tss)"), "Cannot answer");
    for (const Action& action : actions.GetActions()) {
        Check(sd_bus_message_append(reply, "(tss)", action.time, action.method.c_str(), action.arguments.c_str()),
              "Cannot answer");
    }
    Check(sd_bus_message_close_container(reply), "Cannot answer");
}

void VirtualCamera::ClearActions(Arguments&, Results&) {
    actions.Clear();
}

void VirtualCamera::SetFault(Arguments& arguments, Results&) {
    const std::string wanted = arguments.ReadString();
    const std::string kind = arguments.ReadString();
    for (Provider* const provider : providers) {
        if (provider->GetName() == wanted) {
            provider->SetFault(kind);
            return;
        }
    }
    std::string known;
    for (const Provider* const provider : providers) {
        known += (known.empty() ? "" : ", ") + provider->GetName();
    }
    throw Refusal("UnknownProvider", "There is no provider \"" + wanted + "\", only " + known);
}

void VirtualCamera::GetState(Arguments&, Results& results) {
    sd_bus_message* const reply = results.GetMessage();
    relays.AppendState(reply);
    AppendHead(reply);
    recordingInformation.AppendState(reply);
    AppendFaults(reply);
}

void VirtualCamera::AppendHead(sd_bus_message* reply) const {
    Check(sd_bus_message_open_container(reply, 'r', "ddtiai"), "Cannot answer");
    Check(sd_bus_message_append(reply, "ddti", head.GetPosition(), head.GetTarget(), head.GetTimeToTarget(),
                                head.GetIdleState()),
          "Cannot answer");
    Check(sd_bus_message_open_container(reply, 'a', "i"), "Cannot answer");
    for (const int preset : head.GetRoute()) {
        Check(sd_bus_message_append(reply, "i", preset), "Cannot answer");
    }
    Check(sd_bus_message_close_container(reply), "Cannot answer");
    Check(sd_bus_message_close_container(reply), "Cannot answer");
}

void VirtualCamera::AppendFaults(sd_bus_message* reply) const {
    Check(sd_bus_message_open_container(reply, 'a', "(ss)"), "Cannot answer");
    for (const Provider* const provider : providers) {
        Check(sd_bus_message_append(reply, "(ss)", provider->GetName().c_str(), provider->GetFault()), "Cannot answer");
    }
    Check(sd_bus_message_close_container(reply), "Cannot answer");
}

}  // namespace kelto::vcam
