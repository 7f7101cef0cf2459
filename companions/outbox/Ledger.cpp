#include "companions/outbox/Ledger.h"

#include "companions/outbox/FieldText.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

namespace kelto::halvek::outbox {

namespace {

/**
 * The file's length is a multiple of it, so that its room is there once and for all: it can be written where nothing
 * new can. A page is also what a kill does not tear apart, and the counts stand in the first one.
 */
constexpr size_t pageSize = 4096;
/** What is longer was not written by any service. */
constexpr size_t mostBytes = size_t{64} * 1024;

constexpr std::array fates = {Ledger::Fate::Delivered, Ledger::Fate::Failed, Ledger::Fate::Expired,
                              Ledger::Fate::Dropped, Ledger::Fate::Uncertain};
constexpr const char* endedKey = "ended";
constexpr const char* highestKey = "highest";
constexpr const char* flashDayKey = "flash_day_ms";
constexpr const char* flashBytesKey = "flash_bytes";

}  // namespace

Ledger::Ledger(std::string name) : path(std::move(name)) {}

void Ledger::Open() {
    file.Reset(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    std::string text(mostBytes, '\0');
    const ssize_t length = pread(file.Get(), text.data(), text.size(), 0);
    text.resize(length < 0 ? 0 : static_cast<size_t>(length));
    // The last line may be cut where there was no room for all pages.
    text.resize(text.rfind('\n') + 1);
    for (const auto& [key, value] : FieldText::Parse(text).value_or(FieldText::Fields())) {
        Take(key, static_cast<uint64_t>(FieldText::Number(value).value_or(0)));
    }
    Save();
}

void Ledger::Take(const std::string& key, uint64_t value) {
    if (key == endedKey) {
        ended.insert(value);
    } else if (key == highestKey) {
        highest = value;
    } else if (key == flashDayKey) {
        flash.begin = static_cast<int64_t>(value);
    } else if (key == flashBytesKey) {
        flash.spent = value;
    }
    for (const Fate fate : fates) {
        if (key == WordOf(fate)) {
            CountOf(fate) = value;
        }
    }
}

void Ledger::Enter(uint64_t id, Fate fate) {
    ++CountOf(fate);
    Note(id);
}

void Ledger::Note(uint64_t id) {
    ended.insert(id);
    highest = std::max(highest, id);
    Save();
}

void Ledger::SpendFlash(uint64_t size) {
    flash.spent += size;
    Save();
}

/** Where it cannot be written, which is tried twice, a restart counts from what stands there. */
void Ledger::Save() {
    std::string text;
    for (const Fate fate : fates) {
        FieldText::Append(text, WordOf(fate), std::to_string(CountOf(fate)));
    }
    FieldText::Append(text, flashDayKey, std::to_string(flash.begin));
    FieldText::Append(text, flashBytesKey, std::to_string(flash.spent));
    FieldText::Append(text, highestKey, std::to_string(highest));
    for (const uint64_t id : ended) {
        FieldText::Append(text, endedKey, std::to_string(id));
    }
    // Empty lines behind the last one.
    text.resize((text.size() / pageSize + 1) * pageSize, '\n');
    const auto length = static_cast<ssize_t>(text.size());
    if (pwrite(file.Get(), text.data(), text.size(), 0) == length ||
        pwrite(file.Get(), text.data(), text.size(), 0) == length) {
        static_cast<void>(ftruncate(file.Get(), length) == 0);
    }
}

uint64_t& Ledger::CountOf(Fate fate) {
    switch (fate) {
        case Fate::Delivered:
            return counts.delivered;
        case Fate::Failed:
            return counts.failed;
        case Fate::Expired:
            return counts.expired;
        case Fate::Uncertain:
            return counts.uncertain;
        default:
            return counts.dropped;
    }
}

const char* Ledger::WordOf(Fate fate) {
    switch (fate) {
        case Fate::Delivered:
            return "delivered";
        case Fate::Failed:
            return "failed";
        case Fate::Expired:
            return "expired";
        case Fate::Dropped:
            return "dropped";
        case Fate::Uncertain:
            return "uncertain";
    }
    return "";
}

}  // namespace kelto::halvek::outbox
