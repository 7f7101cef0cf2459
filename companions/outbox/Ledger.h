#pragma once

#include "companions/common/UniqueFd.h"
#include "companions/outbox/FlashBudget.h"

#include <cstdint>
#include <set>
#include <string>

namespace kelto::halvek::outbox {

/**
 * What became of the items since the boot, in a file in RAM, which outlives the service.
 *
 * The end of an item is counted before its file is removed, and its number is noted until the file is gone. So a
 * service that is killed in between counts it once and delivers it once, and so does one whose flash has become
 * read-only. One thread at a time.
 */
class Ledger {
public:
    enum class Fate { Delivered, Failed, Expired, Dropped, Uncertain };

    struct Counts {
        uint64_t delivered = 0;
        uint64_t failed = 0;
        uint64_t expired = 0;
        uint64_t dropped = 0;
        uint64_t uncertain = 0;
    };

    explicit Ledger(std::string file);

    /** Reads what an earlier service has left. Without such a file all of it begins anew. */
    void Open();

    /** Counts the end of an item. */
    void Enter(uint64_t id, Fate fate);
    /** An item that never counted, whose file cannot be removed. */
    void Note(uint64_t id);
    /** Its file is gone. */
    void Gone(uint64_t id) { ended.erase(id); }

    bool HasEnded(uint64_t id) const { return ended.contains(id); }
    /** The highest number of an item that has ended since the boot; 0 for none. */
    uint64_t HighestId() const { return highest; }
    const std::set<uint64_t>& Ended() const { return ended; }
    const Counts& GetCounts() const { return counts; }

    bool MayWriteFlash(int64_t now, uint64_t size, uint64_t limit) { return flash.Allows(now, size, limit); }
    /** So many bytes were written to flash. */
    void SpendFlash(uint64_t size);

    /** "delivered", "failed", "expired", "dropped" or "uncertain". */
    static const char* WordOf(Fate fate);

private:
    uint64_t& CountOf(Fate fate);
    void Take(const std::string& key, uint64_t value);
    void Save();

    // Constant after construction.
    std::string path;

    companion::UniqueFd file;
    Counts counts;
    std::set<uint64_t> ended;
    uint64_t highest = 0;
    FlashBudget flash;
};

}  // namespace kelto::halvek::outbox
