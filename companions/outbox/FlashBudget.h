#pragma once

#include <cstdint>

namespace kelto::halvek::outbox {

/** What was written to flash today, where a day is 24 h of Uptime: a network that is away for weeks must not wear it
 * out. */
struct FlashBudget {
    static constexpr int64_t day = int64_t{24} * 3'600'000;

    /** Whether so many bytes may be written, of so many a day. The first question after a day begins a new one. */
    bool Allows(int64_t now, uint64_t size, uint64_t limit) {
        if (now - begin >= day) {
            begin = now;
            spent = 0;
        }
        return spent + size <= limit;
    }

    /** By Uptime. */
    int64_t begin = 0;
    /** In bytes. */
    uint64_t spent = 0;
};

}  // namespace kelto::halvek::outbox
