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
// In milliseconds.
constexpr int64_t longestInRam = int64_t{5} * 60'000;
constexpr int64_t flashDelay = 60'000;
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

Queue::Queue(const std::string& ramFolder, std::string flashFolder, const Settings& current)
    : settings(current),
      ram(ramFolder, SpoolFolder::Medium::Ram),
      flash(std::move(flashFolder), SpoolFolder::Medium::Flash),
      boot(ThisBoot()),
      ledger(ramFolder + "/counts") {}

void Queue::Open() {
    ledger.Open();
    Take(ram, false);
    OpenFlash(Uptime());
    const uint64_t highest = std::max({ram.HighestId(), flash.HighestId(), ledger.HighestId()});
    // Nobody knows which numbers a flash has that is not there yet.
    nextId = !hasFlash || highest == 0 || highest > highestUsed ? RandomStart() : highest + 1;
    RemoveEnded();
    Trim();
}

void Queue::OpenFlash(int64_t now) {
    nextFlashTry = now + flashDelay;
    try {
        Take(flash, true);
        hasFlash = true;
    } catch (const std::system_error& failure) {
        TellFlashTrouble(failure.what());
    }
}

bool Queue::RetryFlash(int64_t now) {
    if (hasFlash || now < nextFlashTry) {
        return false;
    }
    OpenFlash(now);
    if (!hasFlash) {
        return false;
    }
    hasFlashTrouble = false;
    Log::Information("The flash is there now");
    for (auto& [id, item] : items) {
        if (item.keepSafeAt == INT64_MAX) {
            // Its turn has come in vain.
            KeepSafe(item);
        }
    }
    RemoveEnded();
    Trim();
    return true;
}

void Queue::RemoveEnded() {
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
        Item item;
        item.file = std::move(file);
        item.isOnFlash = isOnFlash;
        item.keepSafeAt = isOnFlash ? INT64_MAX : Uptime() + longestInRam;
        Recall(item);
        if (const auto other = items.find(id); other != items.end()) {
            // A copy that was just being made when the service ended; what is known of it may be beside the other one.
            item.state = other->second.state;
            item.wasUncertain = other->second.wasUncertain;
            item.notBefore = other->second.notBefore;
            item.settledRecipients.merge(other->second.settledRecipients);
            Remember(item);
            ram.Remove(id);
            ramBytes -= other->second.file.size;
            items.erase(other);
        }
        (isOnFlash ? flashBytes : ramBytes) += item.file.size;
        items.emplace(id, std::move(item));
    }
}

/** What Remember has written down. */
void Queue::Recall(Item& item) const {
    const std::string note = (item.isOnFlash ? flash : ram).ReadNote(item.file.id);
    bool isOfThisBoot = false;
    for (const auto& [key, value] : FieldText::Parse(note).value_or(FieldText::Fields())) {
        if (key == "boot") {
            isOfThisBoot = value == boot;
        } else if (key == "not-before" && isOfThisBoot) {
            item.notBefore = FieldText::Number(value).value_or(0);
        } else if (key == "uncertain") {
            item.wasUncertain = true;
            item.state = Item::State::Uncertain;
        } else if (key == "settled") {
            item.settledRecipients.insert(value);
        }
    }
}

void Queue::Remember(const Item& item) {
    if (!item.wasUncertain && item.settledRecipients.empty()) {
        return;
    }
    std::string text;
    FieldText::Append(text, "boot", boot);
    FieldText::Append(text, "not-before", std::to_string(item.notBefore));
    if (item.wasUncertain) {
        FieldText::Append(text, "uncertain", "yes");
    }
    for (const std::string& recipient : item.settledRecipients) {
        FieldText::Append(text, "settled", recipient);
    }
    try {
        (item.isOnFlash ? flash : ram).WriteNote(item.file.id, text);
    } catch (const std::system_error& failure) {
        Log::Warning("What is known of a mail may be forgotten at a restart: " + std::string(failure.what()));
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
    item.keepSafeAt = item.isOnFlash ? INT64_MAX : stamped.uptimeMs + longestInRam;
    (item.isOnFlash ? flashBytes : ramBytes) += item.file.size;
    return items.emplace(id, std::move(item)).first->second;
}

void Queue::Confirm(Item& item) {
    (item.isOnFlash ? flash : ram).Publish(item.file.id);
    item.state = Item::State::Queued;
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

void Queue::Trim() {
    while ((items.size() > mostItems || Bytes() > settings.spoolLimit) && DropOldest(Place::Anywhere)) {
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
    if (!hasFlash || settings.durability == Settings::Durability::Ram) {
        return false;
    }
    const int64_t now = Uptime();
    const bool isAllowed = ledger.MayWriteFlash(now, size, settings.flashBudget);
    if (!isAllowed && (!budgetToldAt || now - *budgetToldAt >= FlashBudget::day)) {
        budgetToldAt = now;
        Log::Warning("FlashBudget is used up for today: items are kept in RAM only");
    }
    return isAllowed;
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
    try {
        return WriteToRam(size, [&] { return write(ram); });
    } catch (const std::system_error&) {
        // Somebody else has filled the RAM: better there than nowhere.
        item.isOnFlash = !isEarly && MayWriteFlash(size) && WriteToFlash(size, 0, [&] { file = write(flash); });
        if (!item.isOnFlash) {
            throw;
        }
        return file;
    }
}

SpoolFolder::File Queue::WriteToRam(uint64_t size, const std::function<SpoolFolder::File()>& write) {
    if (size > settings.ramLimit) {
        throw QueueFull("it is larger than RamLimit, and cannot be kept on flash");
    }
    while (ramBytes + size > settings.ramLimit) {
        if (!DropOldest(Place::Ram)) {
            throw QueueFull("there is no room in RAM");
        }
    }
    try {
        return write();
    } catch (const std::system_error& failure) {
        if (failure.code().value() != ENOSPC || !DropOldest(Place::Ram)) {
            throw;
        }
        return write();
    }
}

void Queue::KeepSafe(Item& item) {
    item.keepSafeAt = item.isOnFlash ? INT64_MAX : Uptime();
}

int64_t Queue::KeepNext() {
    const auto isEarlier = [](const auto& one, const auto& other) {
        return one.second.keepSafeAt < other.second.keepSafeAt;
    };
    const auto first = std::min_element(items.begin(), items.end(), isEarlier);
    if (first != items.end() && first->second.keepSafeAt <= Uptime()) {
        first->second.keepSafeAt = INT64_MAX;
        MoveToFlash(first->second, true);
    }
    const auto next = std::min_element(items.begin(), items.end(), isEarlier);
    if (next == items.end()) {
        return INT64_MAX;
    }
    return hasFlash ? next->second.keepSafeAt : std::min(next->second.keepSafeAt, nextFlashTry);
}

void Queue::KeepAllSafe() {
    for (auto& [id, item] : items) {
        MoveToFlash(item, false);
    }
}

bool Queue::MoveToFlash(Item& item, bool isBounded) {
    const uint64_t size = item.file.size;
    if (item.isOnFlash || item.state == Item::State::Unheard || settings.durability == Settings::Durability::Ram ||
        !hasFlash || (isBounded && !MayWriteFlash(size))) {
        return false;
    }
    const uint64_t id = item.file.id;
    if (!WriteToFlash(size, id, [&] { flash.Copy(id, ram); })) {
        return false;
    }
    item.isOnFlash = true;
    item.keepSafeAt = INT64_MAX;
    Remember(item);
    ram.Remove(id);
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
    const bool isUnheard = item->second.state == Item::State::Unheard;
    SpoolFolder& place = item->second.isOnFlash ? flash : ram;
    (item->second.isOnFlash ? flashBytes : ramBytes) -= item->second.file.size;
    items.erase(item);
    if (isUnheard) {
        place.Discard(id);
    } else if (RemoveFiles(id)) {
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
