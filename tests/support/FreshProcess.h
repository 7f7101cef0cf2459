#pragma once

#include <functional>

namespace kelto::test {

/**
 * Runs the body in a process of its own, begun again from main, and expects that nothing in it fails.
 *
 * For what a process settles once: a level from the environment, the place where records go, the end of logging. The
 * body has to stand as a whole in one call, and the test must have done nothing before it that counts.
 */
void ExpectInFreshProcess(const std::function<void()>& body);

}  // namespace kelto::test
