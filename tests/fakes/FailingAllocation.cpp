#include "tests/fakes/FailingAllocation.h"

#include <cstdlib>
#include <new>

namespace {

thread_local bool armed = false;
thread_local bool hasFailed = false;
thread_local size_t goodOnesLeft = 0;

}  // namespace

void* operator new(size_t size) {
    if (armed && goodOnesLeft-- == 0) {
        armed = false;
        hasFailed = true;
        throw std::bad_alloc();
    }
    void* const memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}

namespace kelto::test {

FailingAllocation::FailingAllocation(size_t goodOnes) {
    hasFailed = false;
    goodOnesLeft = goodOnes;
    armed = true;
}

FailingAllocation::~FailingAllocation() {
    armed = false;
}

bool FailingAllocation::HasFailed() {
    return hasFailed;
}

}  // namespace kelto::test
