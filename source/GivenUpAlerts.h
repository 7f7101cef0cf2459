#pragma once

#include <chrono>
#include <cstddef>

namespace kelto::core {
class Logger;
}

namespace kelto::halvek::source {

/**
 * Counts the alerts that a source gives up because they are too large, and tells of them by a Warning of
 * "kelto.msgbus".
 *
 * Anybody who may raise one such alert may raise a thousand a second, so what comes within ten seconds of a Warning is
 * told by the next one, or at the end. For the source's delivery thread, and for who has waited for its end.
 */
class GivenUpAlerts {
public:
    using Clock = std::chrono::steady_clock;

    explicit GivenUpAlerts(Clock::duration leastPause = std::chrono::seconds(10));
    /** Tells the rest. Needs no memory. */
    ~GivenUpAlerts() { TellRest(); }
    GivenUpAlerts(const GivenUpAlerts&) = delete;
    GivenUpAlerts& operator=(const GivenUpAlerts&) = delete;

    /** Counts one. */
    void Add() { ++count; }

    /** Tells what has been counted, unless there is nothing to tell or it is too early for another Warning. */
    void Tell();

    /** Tells what has been counted, if anything, whenever the last Warning was. */
    void TellRest();

private:
    const core::Logger& logger;
    const Clock::duration pause;
    Clock::time_point next;
    size_t count = 0;
};

}  // namespace kelto::halvek::source
