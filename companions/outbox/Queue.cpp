#include "companions/outbox/Queue.h"

#include "companions/common/ClockState.h"
#include "companions/outbox/FieldText.h"
#include "companions/outbox/Log.h"
#include "companions/outbox/Uptime.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <system_error>
#include <utility>

namespace kelto::halvek::outbox {

using companion::ClockState;

namespace {

constexpr size_t mostItems = 500;
/** A number above it was made up by somebody else. */
constexpr uint64_t highestUsed = INT64_MAX;

std::string ThisBoot() {
    try {
        return ClockState::BootId();
    } catch (const std::system_error&) {
        return {};
    }
}

/** Where numbers begin: two cameras that upload into one folder must not use the same ones. */
uint64_t RandomStart() {
    uint32_t random = 0;
    static_cast<void>(!getrandom(&random, sizeof(random), GRND_NONBLOCK));
    return (uint64_t{random} << 24U) + 1;
}

}  // namespace

Queue::Queue(std::string ramFolder, std::string flashFolder, const Settings& current)
    : settings(current),
      ram(ramFolder, SpoolFolder::Medium::Ram),
      flash(std::move(flashFolder), SpoolFolder::Medium::Flash),
      boot(ThisBoot()),
      ledger(ramFolder + "/counts") {}

void Queue::Open() {
    ledger.Open();
    Take(ram, false);
    try {
        Take(flash, true);
        hasFlash = true;
    } catch (const std::system_error& failure) {
        TellFlashTrouble(failure.what());
    }
    const uint64_t highest = std::max({ram.HighestId(), flash.HighestId(), ledger.HighestId()});
    nextId = highest == 0 || highest > highestUsed ? RandomStart() : highest + 1;
    for (const uint64_t id : std::set(ledger.Ended())) {
        if (RemoveFiles(id)) {
            ledger.Gone(id);
        }
    }
}

void Queue::Take(SpoolFolder& folder, bool isOnFlash) {
    SpoolFolder::Found found = folder.Open();
    for (const std::string& name : found.damaged) {
        Log::Error("Damaged, and set aside in " + folder.Path() + "/bad: " + name);
        CountDamaged(folder, name);
    }
    for (SpoolFolder::File& file : found.files) {
        const uint64_t id = file.id;
        if (ledger.HasEnded(id)) {
            continue;
        }
        if (items.contains(id)) {
            // A copy that was just being made when the service ended.
            ram.Remove(id);
            ramBytes -= items[id].file.size;
            items.erase(id);
        }
        (isOnFlash ? flashBytes : ramBytes) += file.size;
        Item item;
        item.file = std::move(file);
        item.isOnFlash = isOnFlash;
        items.emplace(id, std::move(item));
    }
}

/** Once: one that cannot be moved is found again. */
void Queue::CountDamaged(SpoolFolder& folder, const std::string& name) {
    const std::optional<uint64_t> id = SpoolFolder::IdOf(name);
    if (id && !ledger.HasEnded(*id)) {
        ledger.Enter(*id, Fate::Dropped);
        if (folder.Remove(*id)) {
            ledger.Gone(*id);
        }
    }
}

size_t Queue::Waiting() const {
    return static_cast<size_t>(std::count_if(
        items.begin(), items.end(), [](const auto& entry) { return entry.second.state != Item::State::Unheard; }));
}

Item* Queue::Find(uint64_t id) {
    const auto found = items.find(id);
    return found == items.end() ? nullptr : &found->second;
}

Item& Queue::Accept(const ItemHeader& header, int payload, uint64_t size) {
    ItemHeader stamped = header;
    stamped.acceptedMs = ClockState::Now();
    stamped.wasSynced = ClockState::IsSynced();
    stamped.boot = boot;
    stamped.uptimeMs = Uptime();
    MakeRoom(size);
    while (items.contains(nextId)) {
        ++nextId;
    }
    const uint64_t id = nextId++;
    Item item;
    item.state = Item::State::Unheard;
    try {
        item.file = WriteSomewhere(item, id, stamped, payload);
    } catch (const std::length_error& failure) {
        throw QueueFull(failure.what());
    }
    (item.isOnFlash ? flashBytes : ramBytes) += item.file.size;
    return items.emplace(id, std::move(item)).first->second;
}

void Queue::MakeRoom(uint64_t size) {
    if (size > settings.spoolLimit) {
        throw QueueFull("it is larger than SpoolLimit");
    }
    while (items.size() >= mostItems || Bytes() + size > settings.spoolLimit) {
        if (!DropOldest(Place::Anywhere)) {
            throw QueueFull("there is no room");
        }
    }
}

/** The oldest picture, and a mail only where there is no picture. */
bool Queue::DropOldest(Place place, uint64_t except) {
    for (const bool isMail : {false, true}) {
        const auto found = std::find_if(items.begin(), items.end(), [&](const auto& entry) {
            const Item& item = entry.second;
            return item.IsMail() == isMail && item.state != Item::State::Sending &&
                   item.state != Item::State::Unheard && entry.first != except &&
                   (place == Place::Anywhere || item.isOnFlash == (place == Place::Flash));
        });
        if (found != items.end()) {
            Finish(found->first, Fate::Dropped, "there was no room for newer ones");
            return true;
        }
    }
    return false;
}

bool Queue::MayWriteFlash(uint64_t size) {
    return hasFlash && settings.durability != Settings::Durability::Ram &&
           ledger.MayWriteFlash(Uptime(), size, settings.flashBudget);
}

/** Whether it is there now. Older ones there go for it, but for that one, and only where that makes enough room. */
bool Queue::WriteToFlash(uint64_t size, uint64_t except, const std::function<void()>& write) {
    const auto room = static_cast<int64_t>(size);
    try {
        while (flash.Room() < room) {
            if (flash.Room() + static_cast<int64_t>(flashBytes) < room || !DropOldest(Place::Flash, except)) {
                throw std::system_error(ENOSPC, std::generic_category(), flash.Path());
            }
        }
        try {
            write();
        } catch (const std::system_error& failure) {
            if (failure.code().value() != ENOSPC || !DropOldest(Place::Flash, except)) {
                throw;
            }
            write();
        }
    } catch (const std::system_error& failure) {
        TellFlashTrouble(failure.what());
        return false;
    }
    hasFlashTrouble = false;
    ledger.SpendFlash(size);
    return true;
}

SpoolFolder::File Queue::WriteSomewhere(Item& item, uint64_t id, const ItemHeader& header, int payload) {
    const off_t begin = lseek(payload, 0, SEEK_CUR);
    const auto write = [&](SpoolFolder& folder) {
        lseek(payload, begin, SEEK_SET);
        return folder.Write(id, header, payload, settings.spoolLimit);
    };
    const uint64_t length = static_cast<uint64_t>(std::max<off_t>(lseek(payload, 0, SEEK_END) - begin, 0));
    const uint64_t size = SpoolFolder::SizeOf(header, length);
    const bool isEarly = settings.durability == Settings::Durability::Early;
    const bool fitsRam = ramBytes + size <= settings.ramLimit;
    SpoolFolder::File file;
    if ((isEarly || !fitsRam) && MayWriteFlash(size) && WriteToFlash(size, 0, [&] { file = write(flash); })) {
        item.isOnFlash = true;
        return file;
    }
    while (ramBytes + size > settings.ramLimit && DropOldest(Place::Ram)) {
    }
    try {
        return write(ram);
    } catch (const std::system_error& failure) {
        if (failure.code().value() == ENOSPC && DropOldest(Place::Ram)) {
            return write(ram);
        }
        // Somebody else has filled the RAM: better there than nowhere.
        item.isOnFlash = !isEarly && MayWriteFlash(size) && WriteToFlash(size, 0, [&] { file = write(flash); });
        if (!item.isOnFlash) {
            throw;
        }
        return file;
    }
}

void Queue::KeepSafe(Item& item) {
    MoveToFlash(item, true);
}

void Queue::KeepAllSafe() {
    for (auto& [id, item] : items) {
        if (item.state != Item::State::Unheard) {
            MoveToFlash(item, false);
        }
    }
}

bool Queue::MoveToFlash(Item& item, bool isBounded) {
    const uint64_t size = item.file.size;
    if (item.isOnFlash || settings.durability == Settings::Durability::Ram || !hasFlash ||
        (isBounded && !MayWriteFlash(size))) {
        return false;
    }
    const uint64_t id = item.file.id;
    if (!WriteToFlash(size, id, [&] { flash.Copy(id, ram); })) {
        return false;
    }
    ram.Remove(id);
    item.isOnFlash = true;
    ramBytes -= size;
    flashBytes += size;
    return true;
}

void Queue::TellFlashTrouble(const std::string& text) {
    if (!std::exchange(hasFlashTrouble, true)) {
        Log::Error("Items are kept in RAM only: " + text);
    }
}

void Queue::Finish(uint64_t id, Fate fate, const std::string& reason) {
    const auto found = items.find(id);
    if (found == items.end()) {
        return;
    }
    ledger.Enter(id, fate);
    const std::string text = SpoolFolder::NameOf(id) + " " + Ledger::WordOf(fate) + ", target " + found->second.target;
    if (fate == Fate::Delivered) {
        Log::Information(text + (reason.empty() ? "" : ", but not to all: " + reason));
    } else {
        Log::Warning(text + ": " + reason);
    }
    if (fate == Fate::Failed) {
        try {
            const bool isFlash = MayWriteFlash(found->second.file.payloadOffset);
            (isFlash ? flash : ram).KeepFailed(id, found->second.file.header, reason);
            ledger.SpendFlash(isFlash ? found->second.file.payloadOffset : 0);
        } catch (const std::system_error& failure) {
            Log::Warning("The header of what has failed is not kept: " + std::string(failure.what()));
        }
    }
    Remove(found);
}

void Queue::Forget(uint64_t id) {
    if (const auto found = items.find(id); found != items.end()) {
        Remove(found);
    }
}

void Queue::Remove(Items::iterator item) {
    const uint64_t id = item->first;
    (item->second.isOnFlash ? flashBytes : ramBytes) -= item->second.file.size;
    items.erase(item);
    if (RemoveFiles(id)) {
        ledger.Gone(id);
    } else {
        ledger.Note(id);
    }
}

/** In both places: where a copy was not finished, or could not be removed, there are two. */
bool Queue::RemoveFiles(uint64_t id) {
    const bool isGoneFromRam = ram.Remove(id);
    return flash.Remove(id) && isGoneFromRam;
}

/** By the clock if it could be believed then and can be now, else by what this boot knows. */
int64_t Queue::AgeLeft(const Item& item, int64_t now) const {
    const ItemHeader& header = item.file.header;
    const int64_t limit = item.IsMail() ? settings.maxAgeMail : settings.maxAge;
    if (header.wasSynced && ClockState::IsSynced()) {
        return limit - (ClockState::Now() - header.acceptedMs);
    }
    return limit - (header.boot == boot ? now - header.uptimeMs : now);
}

int64_t Queue::ExpireOld() {
    const int64_t now = Uptime();
    int64_t next = INT64_MAX;
    for (auto item = items.begin(); item != items.end();) {
        const auto [id, state] = std::pair(item->first, item->second.state);
        const int64_t left = AgeLeft(item->second, now);
        ++item;
        if (state == Item::State::Sending || state == Item::State::Unheard) {
            continue;
        }
        if (left <= 0) {
            Finish(id, Fate::Expired, "it is too old");
        } else {
            next = std::min(next, now + left);
        }
    }
    return next;
}

companion::UniqueFd Queue::OpenPayload(const Item& item) const {
    return (item.isOnFlash ? flash : ram).OpenItem(item.file.id);
}

}  // namespace kelto::halvek::outbox
