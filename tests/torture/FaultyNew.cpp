/**
 * Allocations that fail under a sanitizer, which has an allocator of its own: only C++'s own ones, which hand on to it.
 */
#include "FaultControl.h"

#include <dlfcn.h>

#include <new>

namespace {

using Allocation = void* (*)(size_t);

/** Looked up once: each look forgets the text of dlerror, which the daemon may be about to read. */
Allocation Real(const char* name) {
    return reinterpret_cast<Allocation>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void* operator new(size_t size) {
    if (FaultFails(CallAllocate)) {
        throw std::bad_alloc();
    }
    static const Allocation real = Real("_Znwm");
    return real(size);
}

void* operator new[](size_t size) {
    if (FaultFails(CallAllocate)) {
        throw std::bad_alloc();
    }
    static const Allocation real = Real("_Znam");
    return real(size);
}
