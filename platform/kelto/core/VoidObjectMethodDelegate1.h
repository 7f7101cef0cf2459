#pragma once

#include "kelto/core/IVoidDelegate1.h"

namespace kelto::core {

/** Binds an object, which it does not own, and one of its operations that takes one argument. */
template <typename Object, typename Argument>
class VoidObjectMethodDelegate1 : public IVoidDelegate1<Argument> {
public:
    using Method = void (Object::*)(Argument);

    VoidObjectMethodDelegate1(Object* targetObject, Method targetMethod) : object(targetObject), method(targetMethod) {}

    void Invoke(Argument argument) override { (object->*method)(argument); }
    const void* GetTarget() const override { return object; }

private:
    Object* const object;
    const Method method;
};

}  // namespace kelto::core
