/**
 * Allocations that fail under a sanitizer, which has an allocator of its own: only C++'s own ones, which hand on to it.
 */
#include "FaultControl.h"

#include <dlfcn.h>

#include <new>

namespace {

void* AllocateReal(const char* name, size_t size) {
    return reinterpret_cast<void* (*)(size_t)>(dlsym(RTLD_NEXT, name))(size);
}

}  // namespace

void* operator new(size_t size) {
    if (FaultFails(CallAllocate)) {
        throw std::bad_alloc();
    }
    return AllocateReal("_Znwm", size);
}

void* operator new[](size_t size) {
    if (FaultFails(CallAllocate)) {
        throw std::bad_alloc();
    }
    return AllocateReal("_Znam", size);
}
