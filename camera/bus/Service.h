#pragma once

#include "camera/bus/Arguments.h"
#include "camera/bus/Bus.h"
#include "camera/bus/Results.h"

#include <systemd/sd-bus.h>

#include <string>

namespace kelto::vcam {

/**
 * Service X: the object "/com/kelto/X" with the interface "com.kelto.X", reached under the bus name "com.kelto.X".
 *
 * A service is a class with a table of methods, each of which names a member function through OnCall. What a method
 * throws is answered as a bus error.
 */
class Service {
public:
    using Method = void (*)(Service& service, Arguments& arguments, Results& results);

    /** The table outlives the service. Throws Failure. */
    Service(Bus& systemBus, const std::string& serviceName, const sd_bus_vtable* methods);
    virtual ~Service() = default;
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    const std::string& GetName() const { return name; }
    const std::string& GetBusName() const { return busName; }
    const std::string& GetPath() const { return path; }

    /** libsystemd's way into a member function. */
    template <auto method>
    static int OnCall(sd_bus_message* call, void* self, sd_bus_error*) {
        static_cast<Service*>(self)->Take(call, &Service::Invoke<method>);
        return 1;
    }

protected:
    /** A call has come. Answers it, unless a derived class has other plans. */
    virtual void Take(sd_bus_message* call, Method method);
    /** Runs the method and sends its results, or the error that it has thrown. */
    void Answer(sd_bus_message* call, Method method);
    static void AnswerError(sd_bus_message* call, const std::string& errorName, const std::string& text);

    template <class... Values>
    void Emit(const char* signal, const char* types, Values... values) {
        bus.Emit(path.c_str(), busName.c_str(), signal, types, values...);
    }

    Bus& bus;

private:
    template <class Derived>
    static Derived& OwnerOf(Service& service, void (Derived::*)(Arguments&, Results&)) {
        return static_cast<Derived&>(service);
    }

    template <auto method>
    static void Invoke(Service& service, Arguments& arguments, Results& results) {
        (OwnerOf(service, method).*method)(arguments, results);
    }

    const std::string name;
    const std::string busName;
    const std::string path;
    BusSlotPtr object;
};

}  // namespace kelto::vcam
