#pragma once

#include "companions/outbox/Courier.h"
#include "companions/outbox/TargetState.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace kelto::halvek::outbox {

/** What the service knows of a target. */
struct TargetEntry {
    TargetState state;
    /** Where it is; mails go where the sender's identity says, so they have none. */
    Server server;
    bool makesFolders = false;
    bool renames = true;
    /** An upload to it was cut off with TLS 1.3, which this and that pair of libraries does: it gets 1.2 from then on.
     */
    bool isCutOff = false;
    /** It has refused to rename once. */
    bool hasRefusedRename = false;
    /** The network has changed since the attempt began, which may have failed for how it was. */
    bool hasNews = false;
    /** While it has something to deliver, and a thread can be had. */
    std::unique_ptr<Courier> courier;

    /** An order that has not been reported yet. */
    struct UnderWay {
        uint64_t id;
        std::shared_ptr<std::atomic<bool>> isCancelled;
    };
    std::optional<UnderWay> underWay;

    bool IsAt(uint64_t id) const { return underWay && underWay->id == id; }
};

using Targets = std::map<std::string, TargetEntry>;

}  // namespace kelto::halvek::outbox
