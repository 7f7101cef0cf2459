#include "env/HalvekEnv.h"

#include "kelto/msgbus/MsgBus.h"
#include "kelto/osa/Exception.h"

namespace kelto::halvek {

HalvekEnv::HalvekEnv() : msgBus(std::make_unique<msgbus::MsgBus>()) {}

HalvekEnv::~HalvekEnv() {
    msgBus.reset();
}

void HalvekEnv::StartMsgBus() {
    msgBus->Start();
}

void HalvekEnv::RegisterComponent(const std::string& id, IHalvekComponent* component) {
    if (!components.emplace(id, component).second) {
        throw osa::Exception("ComponentId %s already taken", id.c_str());
    }
}

HalvekEnv::IHalvekComponent* HalvekEnv::GetComponent(const std::string& id) const {
    const auto component = components.find(id);
    return component == components.end() ? nullptr : component->second;
}

msgbus::IMsgBus* BusOf(HalvekEnv* env) {
    if (env == nullptr) {
        throw osa::Exception("Parameter %s was NULL", "pEnv");
    }
    return env->GetMsgBus();
}

}  // namespace kelto::halvek
