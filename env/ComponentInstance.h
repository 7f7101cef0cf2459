#pragma once

#include "env/HalvekEnv.h"

#include <list>
#include <memory>
#include <string>
#include <utility>

namespace kelto::halvek {

using Components = std::list<std::unique_ptr<HalvekEnv::IHalvekComponent>>;

/**
 * The components of the process. They are never destroyed, so that no one who still holds one can be left with a
 * dangling pointer.
 */
inline Components& ComponentsOfProcess() {
    static Components& components = *new Components;
    return components;
}

/** The component of a class and id, made and registered if there is none yet. For the event monitor's thread. */
template <typename Component>
Component* ComponentInstance(HalvekEnv* env, const std::string& id) {
    auto* const found = env == nullptr ? nullptr : dynamic_cast<Component*>(env->GetComponent(id));
    if (found != nullptr) {
        return found;
    }
    auto component = std::make_unique<Component>(env);
    Component* const instance = component.get();
    // What has been registered must be kept, so that nothing may fail from there on.
    Components& kept = ComponentsOfProcess();
    Components made;
    made.push_back(std::move(component));
    env->RegisterComponent(id, instance);
    kept.splice(kept.end(), made);
    return instance;
}

}  // namespace kelto::halvek
