#pragma once

#include "kelto/osa/Exception.h"
#include "monitor/HalvekEnv.h"

#include <list>
#include <memory>
#include <string>

namespace kelto::halvek {

/** The environment's bus. Throws kelto::osa::Exception if there is no environment. */
inline msgbus::IMsgBus* BusOf(HalvekEnv* env) {
    if (env == nullptr) {
        throw osa::Exception("Parameter %s was NULL", "pEnv");
    }
    return env->GetMsgBus();
}

/**
 * The component of a class and id, made and registered if there is none yet.
 *
 * Components are never destroyed: the process-wide list keeps them to its end, so that no one who still holds one can
 * be left with a dangling pointer.
 */
template <typename Component>
Component* ComponentInstance(HalvekEnv* env, const std::string& id) {
    static auto& components = *std::make_unique<std::list<std::unique_ptr<Component>>>().release();
    auto* const found = env == nullptr ? nullptr : dynamic_cast<Component*>(env->GetComponent(id));
    if (found != nullptr) {
        return found;
    }
    auto component = std::make_unique<Component>(env);
    env->RegisterComponent(id, component.get());
    return components.emplace_back(std::move(component)).get();
}

}  // namespace kelto::halvek
