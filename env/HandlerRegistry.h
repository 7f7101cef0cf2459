#pragma once

#include "env/HandlerRegistration.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <memory_resource>
#include <string>

namespace kelto::halvek {

/**
 * The handler types of the process.
 *
 * Filled before main by the handler classes' static records, later only read, so it needs no lock. It does not own the
 * records.
 */
class HandlerRegistry {
public:
    /** The registry of the process, made at first use. Registries of one's own are for trying things out. */
    static HandlerRegistry& Instance();

    HandlerRegistry() = default;
    HandlerRegistry(const HandlerRegistry&) = delete;
    HandlerRegistry& operator=(const HandlerRegistry&) = delete;

    /** Puts a record at the front of the list. */
    void Register(const HandlerRegistration* registration);

    /**
     * A new handler of the first record of that name; null if there is none.
     *
     * A template, so that EventHandler need be known only to those who make handlers.
     */
    template <typename Handler = EventHandler>
    std::unique_ptr<Handler> CreateHandlerByName(const std::string& type, HalvekEnv* env) const {
        const HandlerRegistration* const registration = FindByName(type);
        if (registration == nullptr) {
            return nullptr;
        }
        return registration->create(env);
    }

    /** Appends the names of all records of a kind, in list order. */
    void GetNamesOfKind(int32_t kind, std::list<std::string>& names) const;

    /** All records, in list order. */
    const std::pmr::list<const HandlerRegistration*>& GetRegistrations() const { return registrations; }

private:
    const HandlerRegistration* FindByName(const std::string& type) const;

    // Where the process begins, nobody could be told that there is no memory: the first records have their place here.
    std::array<std::byte, 1024> firstPlaces{};
    std::pmr::monotonic_buffer_resource places{firstPlaces.data(), firstPlaces.size()};
    std::pmr::list<const HandlerRegistration*> registrations{&places};
};

/** Registers a record with the process's registry when it is initialised. */
class HandlerRegistrar {
public:
    explicit HandlerRegistrar(const HandlerRegistration* registration) {
        HandlerRegistry::Instance().Register(registration);
    }
};

/**
 * The order in which the handler types register, whatever the order of linking: values for the attribute init_priority
 * of their HandlerRegistrar.
 */
enum HandlerRegistrationOrder : int {
    RegisterTour = 1001,
    RegisterFolder,
    RegisterFtp,
    RegisterPreset,
    RegisterExtern,
    RegisterEmail,
    RegisterRelay,
};

}  // namespace kelto::halvek
