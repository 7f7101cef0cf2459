#include "tests/fakes/FailingAllocation.h"

#include <cstdlib>
#include <new>

namespace {

thread_local bool armed = false;
thread_local bool hasFailed = false;
thread_local size_t goodOnesLeft = 0;
thread_local size_t badOnesLeft = 0;

bool Fails() {
    if (!armed) {
        return false;
    }
    if (goodOnesLeft > 0) {
        --goodOnesLeft;
        return false;
    }
    hasFailed = true;
    armed = --badOnesLeft > 0;
    return true;
}

}  // namespace

void* operator new(size_t size) {
    if (Fails()) {
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

FailingAllocation::FailingAllocation(size_t goodOnes, size_t badOnes) {
    hasFailed = false;
    goodOnesLeft = goodOnes;
    badOnesLeft = badOnes;
    armed = true;
}

FailingAllocation::~FailingAllocation() {
    armed = false;
}

bool FailingAllocation::HasFailed() {
    return hasFailed;
}

}  // namespace kelto::test
