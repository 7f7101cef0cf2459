#include "env/HandlerRegistry.h"

namespace kelto::halvek {

HandlerRegistry& HandlerRegistry::Instance() {
    static HandlerRegistry registry;
    return registry;
}

void HandlerRegistry::Register(const HandlerRegistration* registration) {
    registrations.push_front(registration);
}

const HandlerRegistration* HandlerRegistry::FindByName(const std::string& type) const {
    for (const HandlerRegistration* registration : registrations) {
        if (type == registration->name) {
            return registration;
        }
    }
    return nullptr;
}

void HandlerRegistry::GetNamesOfKind(int32_t kind, std::list<std::string>& names) const {
    for (const HandlerRegistration* registration : registrations) {
        if (registration->kind == kind) {
            names.emplace_back(registration->name);
        }
    }
}

}  // namespace kelto::halvek
