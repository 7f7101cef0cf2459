#pragma once

#include "companions/common/UniqueFd.h"
#include "companions/outbox/Connection.h"
#include "companions/outbox/Deliveries.h"
#include "companions/outbox/FieldText.h"
#include "companions/outbox/Queue.h"
#include "companions/outbox/Settings.h"

#include <poll.h>

#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <vector>

namespace kelto::halvek::outbox {

/**
 * The socket, and those who come to it: they hand over an item, or ask something. It waits for none of them. The
 * service's thread.
 */
class Reception {
public:
    /** What a verb of the program is answered. */
    using Answer = std::function<std::string(const FieldText::Fields&)>;

    /** All of it must outlive this. */
    Reception(const Settings& current, Queue& items, Deliveries& targets, Answer answers)
        : settings(current), queue(items), deliveries(targets), answer(std::move(answers)) {}

    /** Takes the socket that the service manager has made, or makes it. Throws std::system_error. */
    void Open(const std::string& path);

    /** Adds what is to be watched: the socket, and everybody who is there. */
    void AddTo(std::vector<pollfd>& watched) const;
    /** Does what there is to do. @param first where AddTo began */
    void Take(const std::vector<pollfd>& watched, size_t first);
    /** Gives up those who have taken too long. */
    void CloseLate();

    /** When somebody will have taken too long, by Uptime; INT64_MAX for never. */
    int64_t NextWake() const;
    /** When somebody came or went last, by Uptime. */
    int64_t LastBusy() const { return lastBusy; }
    bool IsEmpty() const { return connections.empty(); }
    /** Whether the service manager has made the socket, and so starts us again when somebody comes. */
    bool IsActivated() const { return isActivated; }

private:
    void Accept();
    void Serve(Connection& connection);
    void TakeRequest(Connection& connection);
    void TakeSubmission(Connection& connection, const std::string& header);
    void Confirm(Connection& connection);
    void Forget(Connection& connection);

    // Constant after construction.
    const Settings& settings;
    Queue& queue;
    Deliveries& deliveries;
    const Answer answer;

    companion::UniqueFd listener;
    std::list<Connection> connections;
    bool isActivated = false;
    int64_t lastBusy = 0;
};

}  // namespace kelto::halvek::outbox
