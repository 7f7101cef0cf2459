#pragma once

#include "companions/outbox/Attempt.h"
#include "companions/outbox/Mailbox.h"
#include "companions/outbox/Order.h"

#include <curl/curl.h>

#include <chrono>
#include <memory>
#include <vector>

namespace kelto::halvek::outbox {

/**
 * The attempts that a courier makes side by side: its own, and those that it has taken along. One that waits for its
 * server holds up no other, but for three moments in which libcurl waits for it too: while its name is looked up, after
 * its last byte, and at the farewell. One thread.
 */
class Trip {
public:
    /** Throws std::bad_alloc. */
    explicit Trip(Mailbox& box);
    Trip(const Trip&) = delete;
    Trip& operator=(const Trip&) = delete;
    /** Says farewell to the servers, for which some take their time. No attempt may be under way. */
    ~Trip();

    /** Its own, one at a time: the connection is kept for the next one. */
    void Begin(Order order);
    /** Somebody else's, on a connection that ends with it. */
    void TakeAlong(Order order);

    /** Goes on for so long, or until the descriptor is readable or something has happened. */
    void GoOn(int wake, std::chrono::milliseconds time);

    bool IsEmpty() const { return underWay.empty(); }
    /** Whether nothing has moved for a while. */
    bool IsQuiet() const;

private:
    void Start(std::unique_ptr<Attempt> attempt);
    bool ReportDone();

    Mailbox& mailbox;
    const std::unique_ptr<CURLM, decltype(&curl_multi_cleanup)> multi;
    /** That of its own attempts. It knows the session of the connection that it keeps, which some servers ask for. */
    const std::shared_ptr<CURL> own;
    std::vector<std::unique_ptr<Attempt>> underWay;
    std::chrono::steady_clock::time_point lastMove;
};

}  // namespace kelto::halvek::outbox
