#include "tests/fakes/RunHook.h"

namespace kelto::test {

namespace {

std::function<void()> hooked;

}  // namespace

// The linker's --wrap gives every call of the loop to the second and knows the loop itself by the first. Both get the
// object as an operation does.
void RunReally(halvek::Application* application) asm("__real_" RUN);
void RunHooked(halvek::Application* application) asm("__wrap_" RUN);

void RunHooked(halvek::Application* application) {
    if (hooked) {
        hooked();
    }
    RunReally(application);
}

RunHook::RunHook(const std::function<void()>& action) {
    hooked = action;
}

RunHook::~RunHook() {
    hooked = nullptr;
}

}  // namespace kelto::test
