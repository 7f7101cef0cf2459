#pragma once

#include <chrono>
#include <random>

namespace kelto::companion {

/**
 * How long to wait before the next attempt: any time up to a limit, which doubles with each attempt.
 *
 * The whole of the wait is left to chance ("full jitter"). Thousands of cameras lose their server at the same moment;
 * with waits of fixed length they would all come back at the same moment too. One thread at a time.
 */
class BackOff {
public:
    using Milliseconds = std::chrono::milliseconds;

    /** Times must be above zero. */
    BackOff(Milliseconds firstLimit, Milliseconds lastLimit);

    /** The next wait; each is drawn anew. */
    Milliseconds Next();

    /** What Next draws from, at the most. */
    Milliseconds Limit() const { return limit; }

    /** To be called after a success: begins anew. */
    void Reset() { limit = first; }

    /** Begins anew with another limit: where many lose the same server, a first second is too short for all of them. */
    void ResetTo(Milliseconds other) { limit = other < most ? other : most; }

private:
    // Constant after construction.
    Milliseconds first;
    Milliseconds most;

    Milliseconds limit;
    std::minstd_rand random;
};

}  // namespace kelto::companion
