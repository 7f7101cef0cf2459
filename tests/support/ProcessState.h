#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kelto::test {

/** How many threads this process has. */
size_t CountThreads();

/** The ids of the threads of this process that have that name, of which the system keeps 15 bytes. */
std::vector<pid_t> ThreadsNamed(const std::string& name);
bool HasThread(const std::string& name);

/** How often a thread of this process has gone to sleep since it was started. */
uint64_t CountSleeps(pid_t thread);

/** Whether a thread of this process sleeps now. */
bool IsAsleep(pid_t thread);

/** The signals that a thread of this process blocks: bit N - 1 for signal N. */
uint64_t BlockedSignals(pid_t thread);

}  // namespace kelto::test
