#pragma once

#include "app/Application.h"

#include <functional>

namespace kelto::test {

/**
 * Has a test do something where the program goes into its loop, for the length of a scope. It goes on with the loop
 * when that returns; what it throws comes out of the loop.
 *
 * It stands before the loop at link time. One at a time.
 */
class RunHook {
public:
    explicit RunHook(const std::function<void()>& action);
    ~RunHook();
    RunHook(const RunHook&) = delete;
    RunHook& operator=(const RunHook&) = delete;
};

}  // namespace kelto::test
