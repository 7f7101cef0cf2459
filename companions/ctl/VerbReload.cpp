#include "companions/ctl/VerbReload.h"

#include "companions/common/ClockState.h"
#include "companions/ctl/CheckedStore.h"
#include "companions/ctl/Failure.h"
#include "companions/ctl/FindingText.h"
#include "companions/ctl/JsonAnswer.h"
#include "companions/ctl/OptionReader.h"
#include "companions/ctl/Terminal.h"
#include "companions/ctl/live/DaemonJournal.h"
#include "companions/ctl/live/DaemonProcess.h"
#include "companions/ctl/live/ReloadEvidence.h"
#include "companions/ctl/live/ServiceManager.h"
#include "monitor/EventMonitor.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <thread>

namespace kelto::halvek::ctl {

namespace {

using Clock = ServiceManager::Clock;
using Verdict = ReloadEvidence::Verdict;

constexpr const char* help =
    "Checks the settings, has the service manager reload the daemon, waits until it has taken them or refused, and\n"
    "prints what it warns of.\n"
    "  --force        even if the check finds an error\n"
    "  --timeout SEC  wait so long for it (30)\n"
    "The daemon goes on with the settings that it has if it refuses the new ones. Its warnings come from the journal.\n"
    "Status: 0 if the settings were taken, 1 if they were refused, by the check or by the daemon, 3 if that is not\n"
    "known in time, or without a daemon.\n";

constexpr int32_t defaultTimeoutSec = 30;
constexpr int32_t longestTimeoutSec = 3600;
constexpr std::chrono::milliseconds betweenLooks{10};
/** The last records of a reload come within this time. */
constexpr int quietMs = 300;
constexpr std::chrono::seconds longestQuiet{3};
constexpr int warningPriority = 4;
constexpr const char* doneRecord = "Done starting sources";
constexpr const char* refusedRecord = "Error reloading, invalid configuration: ";

std::optional<std::string> OwnPath() {
    const char* const path = std::getenv("PATH");
    return path == nullptr ? std::nullopt : std::optional<std::string>(path);
}

/** What the check says of the new settings. */
struct Examined {
    CheckedStore checked;
    /** Why there is no check; empty if there is one. */
    std::string unreadable;

    bool HasError() const { return !unreadable.empty() || checked.Count(Severity::Error) > 0; }

    /** Whether settings that are taken can be told from outside. */
    bool ChangeShows() const {
        if (!unreadable.empty() || !checked.examination->model) {
            return true;
        }
        const std::vector<ModelSource>& sources = checked.examination->model->sources;
        return std::any_of(sources.begin(), sources.end(), [](const ModelSource& source) {
            return source.group == EventMonitor::serverGroup || source.type == "Timer" || source.type == "Park";
        });
    }
};

Examined Examine(const Invocation& invocation, const StoreLocation& location, bool force) {
    Examined examined;
    try {
        examined.checked = CheckedStore::Check(location.GetPath(),
                                               {.here = false, .zone = invocation.zone.value_or(""), .questions = {}});
    } catch (const Failure& failure) {
        if (!force) {
            throw;
        }
        examined.unreadable = failure.what();
        Terminal::Complain(examined.unreadable);
    }
    return examined;
}

/** One reload, from the signal to the verdict. */
class Reload {
public:
    Reload(const DaemonProcess& daemon, bool changeShows, Clock::time_point latest)
        : pid(daemon.pid),
          deadline(latest),
          journal(daemon.pid),
          hasJournal(WaitAndLook()),
          evidence(pid, changeShows) {}

    Verdict Run(bool force) {
        std::string wrong = ServiceManager::Run({"reload", ServiceManager::unit}, deadline);
        if (!wrong.empty() && force) {
            // The unit may check the settings itself before it sends the signal.
            wrong = ServiceManager::Run({"kill", "--kill-who=main", "--signal=HUP", ServiceManager::unit}, deadline);
        }
        if (!wrong.empty()) {
            throw Failure(wrong);
        }
        const Verdict verdict = WaitForVerdict();
        ReadLastRecords();
        return IsRefusedByRecord() ? Verdict::Refused : verdict;
    }

    const std::vector<DaemonJournal::Record>& Records() const { return records; }
    bool HasJournal() const { return hasJournal; }

private:
    /** Before the evidence is taken: a reload of somebody else's must not count for ours. */
    bool WaitAndLook() {
        while (!ReloadEvidence::IsWaiting(pid).value_or(true) && Clock::now() < deadline) {
            std::this_thread::sleep_for(betweenLooks);
        }
        return journal.HasRecords();
    }

    Verdict WaitForVerdict() {
        while (true) {
            ReadRecords(0);
            const Verdict verdict = IsRefusedByRecord() ? Verdict::Refused : evidence.Look();
            // First: one that ends changes as much as one that takes new settings.
            if (evidence.HasEnded()) {
                throw Failure("the daemon has ended");
            }
            if (verdict != Verdict::NotYet) {
                return verdict;
            }
            if (Clock::now() > deadline) {
                throw Failure("the daemon has not said in time whether it took the settings");
            }
            std::this_thread::sleep_for(betweenLooks);
        }
    }

    /** Until the one that ends a configuration, where the level lets it through; events may go on for ever. */
    void ReadLastRecords() {
        const Clock::time_point latest = Clock::now() + longestQuiet;
        while (hasJournal && !HasRecord(doneRecord) && !IsRefusedByRecord() && Clock::now() < latest &&
               ReadRecords(quietMs)) {
        }
    }

    /** Whether there were any. */
    bool ReadRecords(int waitMs) {
        std::vector<DaemonJournal::Record> read =
            hasJournal ? journal.ReadNew(waitMs) : std::vector<DaemonJournal::Record>{};
        records.insert(records.end(), read.begin(), read.end());
        return !read.empty();
    }

    bool IsRefusedByRecord() const { return HasRecord(refusedRecord); }

    bool HasRecord(const char* beginning) const {
        return std::any_of(records.begin(), records.end(),
                           [&](const DaemonJournal::Record& record) { return record.text.starts_with(beginning); });
    }

    const int pid;
    const Clock::time_point deadline;
    DaemonJournal journal;
    const bool hasJournal;
    ReloadEvidence evidence;
    std::vector<DaemonJournal::Record> records;
};

bool IsToBeShown(const DaemonJournal::Record& record) {
    return record.priority <= warningPriority;
}

void AddText(const Reload& reload, bool isTaken, Answer& answer) {
    for (const DaemonJournal::Record& record : reload.Records()) {
        if (IsToBeShown(record)) {
            answer.AddLine(std::string(record.priority < warningPriority ? "Error: " : "Warning: ") +
                           Terminal::Escape(record.text));
        }
    }
    answer.AddLine(isTaken ? "The daemon has taken the settings."
                           : "The daemon has refused the settings and goes on with those that it had.");
    if (!reload.HasJournal()) {
        Terminal::Complain("what the daemon warns of is not shown: the journal has nothing of it for this user");
    }
}

/** @param by who refused: "check" or "daemon"; null if nobody did */
void AddJson(const StoreLocation& location, const Examined& examined, const char* by, const Reload* reload,
             Answer& answer) {
    companion::Json json;
    JsonAnswer::Begin(json, "reload", location);
    json.Key("taken").Bool(by == nullptr);
    json.Key("refused_by");
    by == nullptr ? json.Null() : json.String(by);
    json.Key("findings").BeginArray();
    if (examined.unreadable.empty()) {
        for (const Finding& finding : examined.checked.examination->Findings()) {
            FindingText::Add(json, finding);
        }
    }
    json.EndArray().Key("records").BeginArray();
    for (const DaemonJournal::Record& record :
         reload == nullptr ? std::vector<DaemonJournal::Record>{} : reload->Records()) {
        if (IsToBeShown(record)) {
            json.BeginObject();
            json.Key("level").String(record.priority < warningPriority ? "Error" : "Warning");
            json.Key("time").String(companion::ClockState::IsoTime(record.time));
            json.Key("text").String(record.text).EndObject();
        }
    }
    json.EndArray().Key("records_hidden").Bool(reload != nullptr && !reload->HasJournal());
    answer.AddLine(json.EndObject().Text());
}

void AddErrors(const Examined& examined, Answer& answer) {
    for (const Finding& finding : examined.checked.examination->Findings()) {
        if (finding.severity == Severity::Error) {
            FindingText::Add(answer, *examined.checked.examination, finding);
        }
    }
}

ExitStatus RunReload(const Invocation& invocation, Answer& answer) {
    const OptionReader options(invocation.words, {{"--force", false}, {"--timeout", true}});
    const int32_t timeoutSec = options.Number("--timeout", defaultTimeoutSec, 1, longestTimeoutSec);
    const bool isJson = invocation.format == Format::Json;
    if (!options.Words().empty()) {
        throw UsageError("reload takes no word " + options.Words().front());
    }
    const std::optional<std::string> ownPath = OwnPath();
    const StoreLocation location = StoreLocation::Use(invocation);
    const std::optional<DaemonProcess> daemon = DaemonProcess::Find();
    if (!daemon) {
        throw Failure("there is no daemon");
    }
    const Examined examined = Examine(invocation, location, options.Has("--force"));
    if (!isJson && examined.unreadable.empty()) {
        AddErrors(examined, answer);
    }
    if (examined.HasError() && !options.Has("--force")) {
        if (isJson) {
            AddJson(location, examined, "check", nullptr, answer);
        }
        Terminal::Complain("the settings have errors, and the daemon was not asked to take them; see halvekctl check");
        return exitNo;
    }
    // An answer that nobody can get comes before anything is done.
    answer.Flush();
    // systemctl is ours, not the daemon's.
    ownPath ? setenv("PATH", ownPath->c_str(), 1) : unsetenv("PATH");
    Reload reload(*daemon, examined.ChangeShows(), Clock::now() + std::chrono::seconds(timeoutSec));
    const bool isTaken = reload.Run(options.Has("--force")) == Verdict::Taken;
    if (isJson) {
        AddJson(location, examined, isTaken ? nullptr : "daemon", &reload, answer);
    } else {
        AddText(reload, isTaken, answer);
    }
    return isTaken ? exitYes : exitNo;
}

}  // namespace

const Verb verbReload{"reload", "[--force] [--timeout SEC]",
                      "has the daemon take new settings, and tells whether it did", help, RunReload};

}  // namespace kelto::halvek::ctl
