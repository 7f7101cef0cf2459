#pragma once

#include "companions/ctl/live/DaemonDescriptors.h"

#include <cstdint>
#include <optional>
#include <set>
#include <string>

namespace kelto::halvek::ctl {

/**
 * Whether the daemon has taken new settings, told from outside and without a record of it: at LogLevel Warning it says
 * nothing of a reload that went well.
 *
 * Settings that were taken leave one more descriptor of the event pipe, and sources with threads of their own have new
 * ones. Settings that were refused change neither; then it counts that the main thread has woken and waits again for
 * the next command. One thread at a time.
 */
class ReloadEvidence {
public:
    enum class Verdict { NotYet, Taken, Refused };

    /** Looks at the daemon as it is before the reload. @param changeShows whether the new settings have an event pipe
     * or sources with threads, so that nothing new means that they were refused */
    ReloadEvidence(int pid, bool changeShows);

    /** Whether the main thread waits for a command; nothing if this user may not know. */
    static std::optional<bool> IsWaiting(int pid);

    /** To be called now and then, once the signal has been sent. */
    Verdict Look();

    /** Whether the daemon has ended. */
    bool HasEnded() const;

private:
    /** What a reload changes. */
    struct State {
        std::optional<int64_t> eventPipes;
        std::set<std::string> sourceThreads;
        int64_t wakings = 0;
    };

    State Now() const;
    bool HasCommands() const;

    // Constant after construction.
    int pid;
    bool changeShows;
    State before;

    /** How often in a row it was seen waiting, with nothing left to do. */
    unsigned seenDone = 0;
};

}  // namespace kelto::halvek::ctl
