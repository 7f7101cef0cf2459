#pragma once

#include <sys/resource.h>

#include <cstddef>
#include <string>
#include <vector>

namespace kelto::test {

/** All open descriptors of the process, ascending. */
std::vector<int> OpenDescriptors();

/** The descriptors that are open on the file of that path. */
std::vector<int> OpenDescriptorsOf(const std::string& path);

/**
 * Closes at the end of a scope every descriptor that was opened in it and left open: what the daemon leaves open by
 * intention must not add up over the tests of one process.
 */
class LeftDescriptorsClosed {
public:
    LeftDescriptorsClosed() : openBefore(OpenDescriptors()) {}
    ~LeftDescriptorsClosed();
    LeftDescriptorsClosed(const LeftDescriptorsClosed&) = delete;
    LeftDescriptorsClosed& operator=(const LeftDescriptorsClosed&) = delete;

private:
    const std::vector<int> openBefore;
};

/** Occupies every descriptor below a number for the length of a scope, so that the next one opened has that number. */
class LowDescriptorsTaken {
public:
    explicit LowDescriptorsTaken(int firstFree);
    ~LowDescriptorsTaken();
    LowDescriptorsTaken(const LowDescriptorsTaken&) = delete;
    LowDescriptorsTaken& operator=(const LowDescriptorsTaken&) = delete;

private:
    rlimit savedLimit{};
    std::vector<int> taken;
};

/** Lets the process open only so many more descriptors for the length of a scope. */
class FewDescriptorsLeft {
public:
    explicit FewDescriptorsLeft(size_t left);
    ~FewDescriptorsLeft();
    FewDescriptorsLeft(const FewDescriptorsLeft&) = delete;
    FewDescriptorsLeft& operator=(const FewDescriptorsLeft&) = delete;

private:
    const LowDescriptorsTaken gaps;
    rlimit savedLimit{};
};

}  // namespace kelto::test
