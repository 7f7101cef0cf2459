#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kelto::companion {

/**
 * What the clock says, and what that is worth.
 *
 * A camera starts in 1970 and learns the time later, if ever: a time stamp says more with the state of the clock beside
 * it, and the boot that it belongs to. Any thread.
 */
class ClockState {
public:
    /** Now, in UTC: milliseconds since 1970. */
    static int64_t Now();

    /** Milliseconds since the boot, by a clock that nobody sets and that a sleeping machine does not stop. */
    static int64_t SinceBoot();

    /** As 2026-11-21T14:05:09.123Z. @param milliseconds since 1970, in UTC */
    static std::string IsoTime(int64_t milliseconds);

    /**
     * Whether the kernel says that the clock follows another one. A sandbox with ProtectClock= refuses the question,
     * and then it does not.
     */
    static bool IsSynced();

    /** "synced" or "unsynced". */
    static std::string_view Word() { return IsSynced() ? "synced" : "unsynced"; }

    /**
     * This boot: 32 hexadecimal digits.
     *
     * @throws std::system_error where /proc/sys is hidden, as it is with ProcSubset=pid
     */
    static std::string BootId();
};

}  // namespace kelto::companion
