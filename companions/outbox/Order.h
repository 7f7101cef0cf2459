#pragma once

#include "companions/common/UniqueFd.h"
#include "companions/outbox/Settings.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kelto::halvek::outbox {

/** All that one attempt needs to know: it asks nobody, so that any thread may make it. A plain value. */
struct Order {
    uint64_t id = 0;
    Server server;
    /** The spool's file, of which the payload is a part. */
    std::shared_ptr<companion::UniqueFd> file;
    uint64_t offset = 0;
    uint64_t size = 0;

    // Pictures.
    std::string remote;
    bool makesFolders = false;
    /** Whether it gets its name when it is complete. */
    bool renames = true;
    /** Whether an earlier attempt may have left something under the name that it has until then. */
    bool mayHaveLeftPart = false;

    // Mails.
    std::string sender;
    std::vector<std::string> recipients;

    std::string knownHosts;
    bool isClockTrusted = true;

    /** Ends the attempt within a second. Any thread. */
    std::shared_ptr<std::atomic<bool>> isCancelled = std::make_shared<std::atomic<bool>>(false);
};

}  // namespace kelto::halvek::outbox
