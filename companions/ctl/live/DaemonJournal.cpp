#include "companions/ctl/live/DaemonJournal.h"

#include <systemd/sd-journal.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <string_view>

namespace kelto::halvek::ctl {

namespace {

/** How many records back the last verdict is looked for. */
constexpr unsigned mostLookedAt = 100'000;
constexpr int serviceManager = 1;
constexpr const char* ofTheService = "UNIT=halvek.service";

std::string Value(sd_journal* journal, const std::string& field) {
    const void* data = nullptr;
    size_t length = 0;
    if (sd_journal_get_data(journal, field.c_str(), &data, &length) < 0 || length <= field.size()) {
        return "";
    }
    return std::string(static_cast<const char*>(data), length).substr(field.size() + 1);
}

}  // namespace

void DaemonJournal::Closer::operator()(sd_journal* opened) const {
    sd_journal_close(opened);
}

DaemonJournal::DaemonJournal(int pid) : daemon(pid) {
    sd_journal* opened = nullptr;
    if (sd_journal_open(&opened, SD_JOURNAL_LOCAL_ONLY) < 0) {
        return;
    }
    journal.reset(opened);
    MatchOnly(daemon);
}

DaemonJournal::~DaemonJournal() = default;

bool DaemonJournal::HasRecords() {
    if (journal == nullptr) {
        return false;
    }
    if (HasAny()) {
        return true;
    }
    // It may have kept silent so far, which is told from a journal that this user may not read by what the service
    // manager says of each start.
    MatchOnly(serviceManager);
    sd_journal_add_match(journal.get(), ofTheService, 0);
    const bool isReadable = HasAny();
    MatchOnly(daemon);
    return isReadable && sd_journal_seek_head(journal.get()) >= 0;
}

/** Whether there is one, and then the last of them is where reading goes on. */
bool DaemonJournal::HasAny() {
    return sd_journal_seek_tail(journal.get()) >= 0 && sd_journal_previous(journal.get()) > 0;
}

void DaemonJournal::MatchOnly(int pid) {
    sd_journal* const opened = journal.get();
    sd_journal_flush_matches(opened);
    const std::string match = "_PID=" + std::to_string(pid);
    sd_journal_add_match(opened, match.c_str(), 0);
    // Two boots have two processes of one number.
    sd_id128_t boot{};
    if (sd_id128_get_boot(&boot) >= 0) {
        std::array<char, SD_ID128_STRING_MAX> text{};
        const std::string ofBoot = std::string("_BOOT_ID=") + sd_id128_to_string(boot, text.data());
        sd_journal_add_match(opened, ofBoot.c_str(), 0);
    }
}

std::vector<DaemonJournal::Record> DaemonJournal::ReadNew(int waitMs) {
    std::vector<Record> records;
    if (journal == nullptr) {
        return records;
    }
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(waitMs);
    std::chrono::microseconds left = std::chrono::milliseconds(waitMs);
    do {
        // Others' records end the wait too.
        sd_journal_wait(journal.get(), static_cast<uint64_t>(left.count()));
        while (sd_journal_next(journal.get()) > 0) {
            if (std::optional<Record> record = Current()) {
                records.push_back(std::move(*record));
            }
        }
        left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
    } while (records.empty() && left.count() > 0);
    return records;
}

std::optional<DaemonJournal::Record> DaemonJournal::FindLast(const std::vector<std::string>& beginnings) {
    if (journal == nullptr || sd_journal_seek_tail(journal.get()) < 0) {
        return std::nullopt;
    }
    for (unsigned looked = 0; looked < mostLookedAt && sd_journal_previous(journal.get()) > 0; ++looked) {
        std::optional<Record> record = Current();
        const auto begins = [&](const std::string& text) { return record->text.starts_with(text); };
        if (record && std::any_of(beginnings.begin(), beginnings.end(), begins)) {
            return record;
        }
    }
    return std::nullopt;
}

std::optional<DaemonJournal::Record> DaemonJournal::Current() {
    Record record;
    record.text = Value(journal.get(), "MESSAGE");
    record.priority = static_cast<int>(std::strtol(Value(journal.get(), "PRIORITY").c_str(), nullptr, 10));
    uint64_t usec = 0;
    sd_journal_get_realtime_usec(journal.get(), &usec);
    record.time = static_cast<int64_t>(usec / 1000);
    return record.text.empty() ? std::nullopt : std::optional(record);
}

}  // namespace kelto::halvek::ctl
