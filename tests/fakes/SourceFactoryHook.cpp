#include "tests/fakes/SourceFactoryHook.h"

#include "source/EventSource.h"

namespace kelto::test {

namespace {

SourceFactoryHook::Creators hooked;

}  // namespace

// The linker's --wrap gives every call of the factory to the second and knows the factory itself by the first.
std::unique_ptr<halvek::EventSource> CreateRealSource(const std::string& typeName,
                                                      halvek::HalvekEnv* env) asm("__real_" FACTORY);
std::unique_ptr<halvek::EventSource> CreateHookedSource(const std::string& typeName,
                                                        halvek::HalvekEnv* env) asm("__wrap_" FACTORY);

std::unique_ptr<halvek::EventSource> CreateHookedSource(const std::string& typeName, halvek::HalvekEnv* env) {
    const auto creator = hooked.find(typeName);
    return creator == hooked.end() ? CreateRealSource(typeName, env) : creator->second(env);
}

SourceFactoryHook::SourceFactoryHook(const Creators& creators) {
    hooked = creators;
}

SourceFactoryHook::~SourceFactoryHook() {
    hooked.clear();
}

}  // namespace kelto::test
