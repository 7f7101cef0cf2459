#pragma once

#include "companions/common/UniqueFd.h"
#include "companions/outbox/Evidence.h"

#include <cstdint>
#include <mutex>
#include <vector>

namespace kelto::halvek::outbox {

/** What came of an order. */
struct Report {
    uint64_t id = 0;
    Evidence evidence;
};

/** Where couriers leave what they have to say. Any thread. */
class Mailbox {
public:
    /** Throws std::system_error if there is no descriptor for it. */
    Mailbox();

    void Put(Report report);
    /** Wakes up without a report. */
    void Wake();
    std::vector<Report> TakeAll();

    /** Readable while there is something to take. */
    int Descriptor() const { return wake.Get(); }

private:
    // Constant after construction.
    companion::UniqueFd wake;

    std::mutex mutex;
    /** Guarded by the mutex. */
    std::vector<Report> reports;
};

}  // namespace kelto::halvek::outbox
