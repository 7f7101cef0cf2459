#pragma once

#include "companions/common/UniqueFd.h"

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace kelto::halvek::outbox {

/** One who asks the service something. It never waits for him. One thread at a time. */
class Connection {
public:
    explicit Connection(companion::UniqueFd accepted);

    /** What has come, without taking it; empty if it is gone, or says nothing. */
    std::string Peek() const;
    /** Reads what has come. False when he is gone, or says what nobody asks. */
    bool Receive();
    /** Whether the lines and the empty one are there. */
    bool HasRequest() const;
    const std::string& Text() const { return text; }
    /** The request is answered: what comes next is read anew. */
    void ClearText() { text.clear(); }
    /** The descriptor that came along; -1 for none. */
    int Attached() const { return attached.Get(); }
    void CloseAttached() { attached.Reset(); }

    /** Who it is: the user's number; -1 if the system does not tell. */
    uid_t Peer() const;

    /** Sends as much as there is room for, and the rest when there is. */
    void Answer(std::string_view answer);
    bool Flush();
    bool HasUnsent() const { return !unsent.empty(); }

    int Descriptor() const { return connection.Get(); }

    /** Ended by the service when this is over, by Uptime. */
    int64_t deadline = 0;
    /** The item that he has to confirm; 0 for none. */
    uint64_t unheardItem = 0;
    bool closesWhenSent = false;

private:
    companion::UniqueFd connection;
    companion::UniqueFd attached;
    std::string text;
    std::string unsent;
};

}  // namespace kelto::halvek::outbox
