#pragma once

#include "companions/outbox/ItemHeader.h"
#include "companions/outbox/Ledger.h"
#include "companions/outbox/Settings.h"
#include "companions/outbox/SpoolFolder.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>

namespace kelto::halvek::outbox {

/** There is no room for an item, and none can be made. */
class QueueFull : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/** An item as the service knows it. */
struct Item {
    enum class State {
        /** Accepted, but the one who brought it has not yet heard so. */
        Unheard,
        Queued,
        Sending,
        /** It was sent, and nobody knows whether it has arrived. */
        Uncertain,
    };

    SpoolFolder::File file;
    bool isOnFlash = false;
    State state = State::Queued;
    /** The target's name. */
    std::string target;
    /** Not to be tried before, by Uptime. */
    int64_t notBefore = 0;
    unsigned attempts = 0;
    /** Whether this was its last try for certain. */
    bool wasUncertain = false;
    /** Recipients that have it, or never will. */
    std::set<std::string> settledRecipients;
    std::string lastError;
    /** When it is written to flash if it is still in RAM, by Uptime: a power cut must not take what is old. */
    int64_t keepSafeAt = INT64_MAX;

    bool IsMail() const { return file.header.kind == ItemHeader::Kind::Mail; }
};

/**
 * All items, in RAM and on flash, in the order in which they came. It keeps the bounds, and counts what becomes of each
 * item under exactly one name. One thread at a time.
 */
class Queue {
public:
    using Fate = Ledger::Fate;
    using Counts = Ledger::Counts;
    using Items = std::map<uint64_t, Item>;

    /** The settings must outlive it; they may change. */
    Queue(const std::string& ramFolder, std::string flashFolder, const Settings& current);

    /** Takes over what is there from before. */
    void Open();
    /**
     * Opens a flash that could not be opened before, once a minute: it may be mounted by now.
     *
     * @return whether it is; then there may be items that have no target yet
     */
    bool RetryFlash(int64_t now);

    /**
     * Accepts an item that is not heard of yet. Others go if there is no room.
     *
     * @param size what the payload seems to have, in bytes
     * @throws QueueFull
     * @throws std::system_error if it can be written nowhere
     */
    Item& Accept(const ItemHeader& header, int payload, uint64_t size);

    /** It counts from now on. Throws std::system_error if that cannot be written down. */
    void Confirm(Item& item);
    /** It ends under that name. */
    void Finish(uint64_t id, Fate fate, const std::string& reason = {});
    /** It was never accepted. */
    void Forget(uint64_t id);

    /** An item whose first try has failed, or will not be soon: KeepNext writes it to flash when its turn comes. */
    void KeepSafe(Item& item);
    /**
     * Writes one of those to flash, or one that has been in RAM for too long. It stays in RAM if it has to. One at a
     * time: a medium may take a second for it, and whoever brings an item waits for us.
     *
     * @return when there is another one, by Uptime; INT64_MAX for never
     */
    int64_t KeepNext();
    /** Before an orderly end. */
    void KeepAllSafe();
    /** Has what is known of an item's deliveries outlive the service, where a second one would be one too many. */
    void Remember(const Item& item);
    /** Gives up what is more than the settings allow. */
    void Trim();

    /** Ends those that are too old. Returns when the next one will be, by Uptime; INT64_MAX for none. */
    int64_t ExpireOld();

    Item* Find(uint64_t id);
    Items& All() { return items; }
    const Items& All() const { return items; }
    const Counts& GetCounts() const { return ledger.GetCounts(); }
    /** How many were accepted and have not ended. */
    size_t Waiting() const;
    uint64_t Bytes() const { return ramBytes + flashBytes; }
    uint64_t FlashBytes() const { return flashBytes; }

    companion::UniqueFd OpenPayload(const Item& item) const;

private:
    enum class Place { Anywhere, Ram, Flash };

    void OpenFlash(int64_t now);
    void RemoveEnded();
    void Take(SpoolFolder& folder, bool isOnFlash);
    void Recall(Item& item) const;
    void CountDamaged(SpoolFolder& folder, const std::string& name);
    void MakeRoom(uint64_t size);
    bool DropOldest(Place place, uint64_t except = 0);
    bool MayWriteFlash(uint64_t size);
    bool WriteToFlash(uint64_t size, uint64_t except, const std::function<void()>& write);
    SpoolFolder::File WriteSomewhere(Item& item, uint64_t id, const ItemHeader& header, int payload);
    SpoolFolder::File WriteToRam(uint64_t size, const std::function<SpoolFolder::File()>& write);
    bool MoveToFlash(Item& item, bool isBounded);
    void Remove(Items::iterator item);
    bool RemoveFiles(uint64_t id);
    void TellFlashTrouble(const std::string& text);
    int64_t AgeLeft(const Item& item, int64_t now) const;

    // Constant after construction.
    const Settings& settings;
    SpoolFolder ram;
    SpoolFolder flash;
    std::string boot;

    bool hasFlash = false;
    /** By Uptime, while there is none. */
    int64_t nextFlashTry = 0;
    bool hasFlashTrouble = false;
    /** When it was told that the budget is used up, by Uptime. */
    std::optional<int64_t> budgetToldAt;
    Items items;
    Ledger ledger;
    uint64_t ramBytes = 0;
    uint64_t flashBytes = 0;
    uint64_t nextId = 1;
};

}  // namespace kelto::halvek::outbox
