#pragma once

#include "camera/bus/Service.h"
#include "camera/runtime/Timer.h"
#include "camera/service/ProviderContext.h"

#include <cstdint>
#include <map>
#include <string>

namespace kelto::vcam {

/**
 * One of the services of a camera. Each call is put down in the log of actions, and then meets the fault that the
 * provider is set to, if any. A call that is kept waiting keeps no other one waiting.
 */
class Provider : public Service {
public:
    Provider(const ProviderContext& context, const std::string& providerName, const sd_bus_vtable* methods);

    /** "none", "error", "slow" or "hang", for calls that come from now on. Throws Refusal. */
    void SetFault(const std::string& kind);
    /** The same word. */
    const char* GetFault() const;

protected:
    void Take(sd_bus_message* call, Method method) override;

    EventLoop& loop;

private:
    enum class Fault { None, Error, Slow, Hang };

    /** A call that waits for its answer. */
    struct Delayed {
        BusMessagePtr call;
        Method method;
    };

    void AnswerLater(sd_bus_message* call, Method method, uint64_t delay);
    void AwaitFirst();
    void AnswerDue();

    ActionLog& actions;
    Fault fault = Fault::None;
    /** By the time when they are due. One timer for all of them: calls that wait equally long keep their order. */
    std::multimap<uint64_t, Delayed> delayed;
    Timer timer;
};

}  // namespace kelto::vcam
