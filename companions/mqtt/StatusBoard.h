#pragma once

#include "companions/mqtt/Wake.h"

#include <chrono>
#include <mutex>
#include <string>

namespace kelto::halvek::mqtt {

/** How the bridge and its broker stand. A plain value. */
struct BridgeState {
    enum class Kind { Connecting, Connected, Waiting, Conflict };

    Kind kind = Kind::Connecting;
    /** Where the broker is. */
    std::string broker;
    /** "5" or "3.1.1"; empty unless connected. */
    std::string protocol;
    /** What went wrong last; empty while nothing does. */
    std::string problem;
    /** When the next attempt is, on the clock that never steps; unless it is connected or connecting. */
    std::chrono::milliseconds nextAttempt{};

    /** In one word, as it is shown. */
    const char* Word() const;

    bool operator==(const BridgeState&) const = default;
};

/** Where the thread that talks to the broker tells how it gets on. Any thread. */
class StatusBoard {
public:
    /** @param wake set whenever something changes; must live as long as this does */
    explicit StatusBoard(Wake& wake) : changed(wake) {}

    void Set(const BridgeState& other);
    BridgeState Get() const;

private:
    Wake& changed;

    mutable std::mutex mutex;
    /** Guarded by the mutex. */
    BridgeState state;
};

}  // namespace kelto::halvek::mqtt
