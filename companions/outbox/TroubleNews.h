#pragma once

#include "companions/common/EventPipe.h"
#include "companions/outbox/Targets.h"

#include <cstdint>
#include <map>
#include <string>

namespace kelto::halvek::outbox {

/**
 * Tells the daemon of targets in trouble, so that a handler can switch a lamp: an event when it begins, and one when it
 * is over. A target has no more than one such pair begin in an hour; one that is still in trouble then is told late.
 *
 * It never waits. An event for which the pipe has no room or no reader is tried again a minute later. Times are those
 * of Uptime. One thread at a time.
 */
class TroubleNews {
public:
    static constexpr const char* troubleType = "OutboxTrouble";
    static constexpr const char* recoveredType = "OutboxRecovered";

    /** @param file where it keeps what it has told, for the next process of this boot */
    TroubleNews(std::string eventPipe, std::string file) : pipe(std::move(eventPipe)), path(std::move(file)) {}

    /** Goes on from there: a target that is not told to be well again is taken for one in trouble until it is. */
    void Load(Targets& targets);

    /** Posts what is new. Returns when it is to be asked again even if nothing changes; INT64_MAX for never. */
    int64_t Tell(const Targets& targets, int64_t now);

    /** Which of the daemon's handlers would mail such an event; empty if there is none. No mail about mail, ever. */
    static std::string MailingHandler(const std::string& settingsPath);

private:
    struct Episode {
        /** When it was told last that one has begun. */
        int64_t toldAt = INT64_MIN;
        bool isTold = false;
    };

    bool Post(const char* type, const std::string& target, const std::string& reason);

    void Save() const;

    companion::EventPipe pipe;
    std::string path;
    std::map<std::string, Episode> episodes;
    int64_t nextTry = 0;
    bool hasPipeTrouble = false;
};

}  // namespace kelto::halvek::outbox
