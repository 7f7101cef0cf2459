#pragma once

namespace kelto::core {

/**
 * Local time's distance from UTC as last seen, for those who may not ask the C library.
 *
 * localtime_r and tzset take a lock; called in a signal handler that interrupted them they never return. So the offset
 * is looked up in ordinary code and read from an atomic everywhere else. Offsets change at quarter hours of UTC only,
 * wherever in the world, so one look-up a quarter of an hour is enough, and one when somebody may have set another
 * zone.
 */
class UtcOffset {
public:
    /** Looks the offset up if this quarter of an hour has not seen a look-up yet. Not for signal handlers. */
    static void Refresh();

    /** Looks the offset up, and whether the system has been set to another zone. Not for signal handlers. */
    static void Renew();

    /** Seconds east of UTC. Safe in a signal handler. */
    static long Get();
};

}  // namespace kelto::core
