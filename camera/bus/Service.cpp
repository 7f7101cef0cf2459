#include "camera/bus/Service.h"

#include "camera/runtime/Refusal.h"

#include <exception>

namespace kelto::vcam {

Service::Service(Bus& systemBus, const std::string& serviceName, const sd_bus_vtable* methods)
    : bus(systemBus), name(serviceName), busName("com.kelto." + serviceName), path("/com/kelto/" + serviceName) {
    sd_bus_slot* slot = nullptr;
    Check(sd_bus_add_object_vtable(bus.Get(), &slot, path.c_str(), busName.c_str(), methods, this),
          "Cannot offer " + busName);
    object.reset(slot);
}

void Service::Take(sd_bus_message* call, Method method) {
    Answer(call, method);
}

void Service::Answer(sd_bus_message* call, Method method) {
    try {
        sd_bus_message* made = nullptr;
        Check(sd_bus_message_new_method_return(call, &made), "Cannot answer");
        const BusMessagePtr reply(made);
        Arguments arguments(call);
        Results results(reply.get());
        method(*this, arguments, results);
        Check(sd_bus_message_send(reply.get()), "Cannot answer");
    } catch (const Refusal& refusal) {
        AnswerError(call, "com.kelto.Error." + refusal.GetName(), refusal.what());
    } catch (const std::exception& exception) {
        AnswerError(call, SD_BUS_ERROR_FAILED, exception.what());
    }
}

void Service::AnswerError(sd_bus_message* call, const std::string& errorName, const std::string& text) {
    // Whoever is not there any more to hear the answer does not miss it.
    sd_bus_reply_method_errorf(call, errorName.c_str(), "%s", text.c_str());
}

}  // namespace kelto::vcam
