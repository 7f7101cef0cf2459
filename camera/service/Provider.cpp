#include "camera/service/Provider.h"

#include "camera/runtime/EventLoop.h"
#include "camera/runtime/Output.h"
#include "camera/runtime/Refusal.h"
#include "camera/service/ActionLog.h"

#include <map>

namespace kelto::vcam {

namespace {

// Microseconds. A caller that waits for 5 s gets a slow answer, and no answer from one that hangs.
constexpr uint64_t slowDelay = 3'000'000;
constexpr uint64_t hangDelay = 30'000'000;

}  // namespace

Provider::Provider(const ProviderContext& context, const std::string& providerName, const sd_bus_vtable* methods)
    : Service(context.bus, providerName, methods), loop(context.loop), actions(context.actions), timer(loop) {}

void Provider::SetFault(const std::string& kind) {
    static const std::map<std::string, Fault> faults = {
        {"none", Fault::None}, {"error", Fault::Error}, {"slow", Fault::Slow}, {"hang", Fault::Hang}};
    const auto found = faults.find(kind);
    if (found == faults.end()) {
        throw Refusal("UnknownFault", "There is no fault \"" + kind + R"(", only "none", "error", "slow" and "hang")");
    }
    fault = found->second;
    Say("fault of %s: %s", GetName().c_str(), kind.c_str());
}

const char* Provider::GetFault() const {
    switch (fault) {
        case Fault::Error:
            return "error";
        case Fault::Slow:
            return "slow";
        case Fault::Hang:
            return "hang";
        case Fault::None:
            break;
    }
    return "none";
}

void Provider::Take(sd_bus_message* call, Method method) {
    actions.Add(GetName() + "." + sd_bus_message_get_member(call), Arguments::AsText(call));
    switch (fault) {
        case Fault::None:
            Answer(call, method);
            break;
        case Fault::Error:
            AnswerError(call, "com.kelto.Error.Fault", GetName() + " is set to fail");
            break;
        case Fault::Slow:
            AnswerLater(call, method, slowDelay);
            break;
        case Fault::Hang:
            AnswerLater(call, method, hangDelay);
            break;
    }
}

void Provider::AnswerLater(sd_bus_message* call, Method method, uint64_t delay) {
    delayed.emplace(EventLoop::Now() + delay, Delayed{BusMessagePtr(sd_bus_message_ref(call)), method});
    AwaitFirst();
}

void Provider::AwaitFirst() {
    if (!delayed.empty()) {
        timer.StartAt(delayed.begin()->first, [this] { AnswerDue(); });
    }
}

void Provider::AnswerDue() {
    const uint64_t now = EventLoop::Now();
    while (!delayed.empty() && delayed.begin()->first <= now) {
        const auto due = delayed.extract(delayed.begin());
        Answer(due.mapped().call.get(), due.mapped().method);
    }
    AwaitFirst();
}

}  // namespace kelto::vcam
