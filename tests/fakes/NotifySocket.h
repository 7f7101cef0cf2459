#pragma once

#include "kelto/osa/UniqueFd.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/TempDir.h"

#include <string>
#include <vector>

namespace kelto::test {

/** Stands in for the service manager for the length of a scope: keeps what the process notifies it of. */
class NotifySocket {
public:
    NotifySocket();

    /** What came since the last call, one element a notification. */
    std::vector<std::string> Take() const;

private:
    const TempDir folder;
    const EnvironmentVariable address;
    const osa::UniqueFd socket;
};

}  // namespace kelto::test
