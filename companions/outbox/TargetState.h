#pragma once

#include <cstdint>
#include <random>
#include <string>

namespace kelto::halvek::outbox {

/**
 * How a target does, and when it may be tried next. Times are those of Uptime. One thread at a time.
 *
 * One try at a time finds out whether the target is back; while it is well, its items follow one another.
 */
class TargetState {
public:
    enum class Kind {
        Ok,
        /** It could not be had: the next try is 5 s later, then 15 s, up to 15 min, each a quarter more or less. */
        Wait,
        /** Somebody has to do something: a wrong password must not lock the account, so it is one try an hour. */
        Hold,
    };

    void Succeeded();
    void Failed(int64_t now, std::string why);
    /** The clock is not set: a try in 30 s, and no failure. */
    void AwaitClock(int64_t now, std::string why);
    void Held(int64_t now, std::string why);
    /** It was in trouble when somebody looked last, and may be tried at once. */
    void Resume(std::string why);

    /** The next try may be at once: something has changed. A target on hold stays that for the network's sake. */
    void Probe();
    /** The same for one on hold too. */
    void ProbeAnyway();

    bool MayTry(int64_t now) const { return now >= nextTry; }
    int64_t NextTry() const { return nextTry; }
    Kind GetKind() const { return kind; }
    /** "ok", "wait" or "hold". */
    const char* Word() const;
    /** Why it is not well; empty if it is. */
    const std::string& Reason() const { return reason; }

private:
    Kind kind = Kind::Ok;
    int64_t nextTry = 0;
    int64_t delay = 0;
    std::string reason;
    std::minstd_rand random{std::random_device{}()};
};

}  // namespace kelto::halvek::outbox
