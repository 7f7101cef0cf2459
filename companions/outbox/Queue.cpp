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
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>

namespace kelto::halvek::outbox {

using companion::ClockState;

namespace {

constexpr size_t mostItems = 500;
constexpr int64_t day = 24 * 3'600'000;

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

const char* WordOf(Queue::Fate fate) {
    switch (fate) {
        case Queue::Fate::Delivered:
            return "delivered";
        case Queue::Fate::Failed:
            return "failed";
        case Queue::Fate::Expired:
            return "expired";
        case Queue::Fate::Dropped:
            return "dropped";
        case Queue::Fate::Uncertain:
            return "uncertain";
    }
    return "";
}

uint64_t& CountOf(Queue::Counts& counts, Queue::Fate fate) {
    switch (fate) {
        case Queue::Fate::Delivered:
            return counts.delivered;
        case Queue::Fate::Failed:
            return counts.failed;
        case Queue::Fate::Expired:
            return counts.expired;
        case Queue::Fate::Uncertain:
            return counts.uncertain;
        default:
            return counts.dropped;
    }
}

constexpr Queue::Fate fates[] = {Queue::Fate::Delivered, Queue::Fate::Failed, Queue::Fate::Expired,
                                 Queue::Fate::Dropped, Queue::Fate::Uncertain};

}  // namespace

Queue::Queue(std::string ramFolder, std::string flashFolder, const Settings& current)
    : settings(current),
      ram(ramFolder, SpoolFolder::Medium::Ram),
      flash(std::move(flashFolder), SpoolFolder::Medium::Flash),
      countsPath(ramFolder + "/counts"),
      boot(ThisBoot()) {}

void Queue::Open() {
    Take(ram, false);
    try {
        Take(flash, true);
        hasFlash = true;
    } catch (const std::system_error& failure) {
        TellFlashTrouble(failure.what());
    }
    const uint64_t highest = std::max(ram.HighestId(), flash.HighestId());
    nextId = highest == 0 ? RandomStart() : highest + 1;
    ReadCounts();
}

void Queue::Take(SpoolFolder& folder, bool isOnFlash) {
    SpoolFolder::Found found = folder.Open();
    for (const std::string& name : found.damaged) {
        Log::Error("Damaged, and set aside in " + folder.Path() + "/bad: " + name);
    }
    for (SpoolFolder::File& file : found.files) {
        const uint64_t id = file.id;
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
    const uint64_t id = nextId++;
    Item item;
    item.state = Item::State::Unheard;
    item.file = WriteSomewhere(item, id, stamped, payload);
    (item.isOnFlash ? flashBytes : ramBytes) += item.file.size;
    return items.emplace(id, std::move(item)).first->second;
}

void Queue::MakeRoom(uint64_t size) {
    if (size > settings.spoolLimit) {
        throw QueueFull("it is larger than SpoolLimit");
    }
    while (items.size() >= mostItems || Bytes() + size > settings.spoolLimit) {
        if (!DropOldest(false, 0)) {
            throw QueueFull("there is no room");
        }
    }
}

/** The oldest picture, and a mail only where there is no picture. */
bool Queue::DropOldest(bool onFlashOnly, uint64_t except) {
    for (const bool isMail : {false, true}) {
        const auto found = std::find_if(items.begin(), items.end(), [&](const auto& entry) {
            const Item& item = entry.second;
            return item.IsMail() == isMail && item.state != Item::State::Sending &&
                   item.state != Item::State::Unheard && (item.isOnFlash || !onFlashOnly) && entry.first != except;
        });
        if (found != items.end()) {
            Finish(found->first, Fate::Dropped, "there was no room for newer ones");
            return true;
        }
    }
    return false;
}

bool Queue::MayWriteFlash(uint64_t size) {
    const int64_t now = Uptime();
    if (now - dayBegin >= day) {
        dayBegin = now;
        dayBytes = 0;
    }
    return hasFlash && settings.durability != Settings::Durability::Ram && dayBytes + size <= settings.flashBudget;
}

SpoolFolder::File Queue::WriteSomewhere(Item& item, uint64_t id, const ItemHeader& header, int payload) {
    const off_t begin = lseek(payload, 0, SEEK_CUR);
    const auto write = [&](SpoolFolder& folder) {
        lseek(payload, begin, SEEK_SET);
        return folder.Write(id, header, payload, settings.spoolLimit);
    };
    const uint64_t size = static_cast<uint64_t>(std::max<off_t>(lseek(payload, 0, SEEK_END) - begin, 0));
    const bool isEarly = settings.durability == Settings::Durability::Early;
    const bool fitsRam = ramBytes + size <= settings.ramLimit;
    if ((isEarly || !fitsRam) && MayWriteFlash(size)) {
        try {
            const SpoolFolder::File file = write(flash);
            item.isOnFlash = true;
            dayBytes += file.size;
            hasFlashTrouble = false;
            return file;
        } catch (const std::system_error& failure) {
            TellFlashTrouble(failure.what());
        }
    }
    while (ramBytes + size > settings.ramLimit && !items.empty() && DropOldest(false, 0)) {
    }
    try {
        return write(ram);
    } catch (const std::system_error& failure) {
        if (failure.code().value() != ENOSPC || !DropOldest(false, 0)) {
            throw;
        }
        return write(ram);
    } catch (const std::length_error& failure) {
        throw QueueFull(failure.what());
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
    try {
        if (flash.Room() < static_cast<int64_t>(size) && DropOldest(true, item.file.id) &&
            flash.Room() < static_cast<int64_t>(size)) {
            return false;
        }
        flash.Copy(item.file.id, ram);
    } catch (const std::system_error& failure) {
        TellFlashTrouble(failure.what());
        return false;
    }
    hasFlashTrouble = false;
    dayBytes += size;
    ram.Remove(item.file.id);
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
    ++CountOf(counts, fate);
    WriteCounts();
    const std::string text = SpoolFolder::NameOf(id) + " " + WordOf(fate) + ", target " + found->second.target;
    if (fate == Fate::Delivered) {
        Log::Information(text + (reason.empty() ? "" : ", but not to all: " + reason));
    } else {
        Log::Warning(text + ": " + reason);
    }
    if (fate == Fate::Failed) {
        try {
            const bool isFlash = MayWriteFlash(found->second.file.payloadOffset);
            (isFlash ? flash : ram).KeepFailed(id, found->second.file.header, reason);
            dayBytes += isFlash ? found->second.file.payloadOffset : 0;
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
    FolderOf(item->second).Remove(item->first);
    (item->second.isOnFlash ? flashBytes : ramBytes) -= item->second.file.size;
    items.erase(item);
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

void Queue::ReadCounts() {
    std::ostringstream text;
    if (const std::ifstream file(countsPath); file) {
        text << file.rdbuf();
    }
    for (const auto& [key, value] : FieldText::Parse(text.str()).value_or(FieldText::Fields())) {
        for (const Fate fate : fates) {
            if (key == WordOf(fate)) {
                CountOf(counts, fate) = static_cast<uint64_t>(FieldText::Number(value).value_or(0));
            }
        }
    }
}

/** In RAM, so that they outlive the service, but not the boot. */
void Queue::WriteCounts() const {
    std::string text;
    Counts copy = counts;
    for (const Fate fate : fates) {
        FieldText::Append(text, WordOf(fate), std::to_string(CountOf(copy, fate)));
    }
    const std::string temporary = countsPath + ".new";
    std::ofstream file(temporary);
    file << text;
    file.close();
    if (file) {
        static_cast<void>(std::rename(temporary.c_str(), countsPath.c_str()));
    }
}

}  // namespace kelto::halvek::outbox
