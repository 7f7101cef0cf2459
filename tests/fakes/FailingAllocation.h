#pragma once

#include <cstddef>

namespace kelto::test {

/**
 * Has a memory allocation of the calling thread fail, the one after so many good ones, or that one and those that
 * follow, for the length of a scope. It stands in for operator new in the whole test program.
 */
class FailingAllocation {
public:
    explicit FailingAllocation(size_t goodOnes, size_t badOnes = 1);
    ~FailingAllocation();
    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;

    /** Whether it has come to the first of them. */
    static bool HasFailed();
};

}  // namespace kelto::test
