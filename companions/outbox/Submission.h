#pragma once

#include "companions/outbox/ItemHeader.h"
#include "companions/outbox/Request.h"

#include <string>

namespace kelto::halvek::outbox {

/** Hands one item to the service: what both front ends have in common. */
class Submission {
public:
    enum class Outcome {
        Queued,
        /** There is no room, and there will be none for this item. */
        Full,
    };

    /**
     * It counts when the service has heard that its answer has been heard: whoever gets an exception here may deliver
     * the item otherwise. A service that ends before that leaves unread what was said to it, which is a reset
     * connection.
     *
     * @param payload the descriptor of a file, from where it stands
     * @param answer the item's number, or the reason for people
     * @throws Unreachable after 5 s at the latest
     */
    static Outcome Submit(const std::string& socketPath, const ItemHeader& header, int payload, std::string& answer);

    /** What the first line of a submission says, and its answers. */
    static constexpr std::string_view verb = "submit";
    static constexpr std::string_view queued = "queued ";
    static constexpr std::string_view full = "full ";
    static constexpr std::string_view heard = "ok\n";
    static constexpr std::string_view forgotten = "forgotten";
};

}  // namespace kelto::halvek::outbox
