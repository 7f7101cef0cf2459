#pragma once

#include <cstddef>

namespace kelto::test {

/**
 * Has one memory allocation of the calling thread fail, the one after so many good ones, for the length of a scope. It
 * stands in for operator new in the whole test program.
 */
class FailingAllocation {
public:
    explicit FailingAllocation(size_t goodOnes);
    ~FailingAllocation();
    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;

    /** Whether it has come to that one. */
    static bool HasFailed();
};

}  // namespace kelto::test
