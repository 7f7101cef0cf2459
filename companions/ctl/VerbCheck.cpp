#include "companions/ctl/VerbCheck.h"

#include "companions/ctl/Catalogue.h"
#include "companions/ctl/CheckedStore.h"
#include "companions/ctl/Failure.h"
#include "companions/ctl/FindingText.h"
#include "companions/ctl/JsonAnswer.h"
#include "companions/ctl/OptionReader.h"
#include "companions/ctl/PostingRules.h"
#include "companions/ctl/Sha256.h"
#include "companions/ctl/StoreLocation.h"
#include "companions/ctl/Terminal.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* help =
    "Without FILE it checks the daemon's settings; each FILE, or folder of files, by itself. Nothing is changed, and\n"
    "the answer is the same for every user and on every machine, but for --here and for what rules post.\n"
    "  --here            looks at this machine and its camera too\n"
    "  --fail-on LEVEL   what status 1 is for: error, warning, note or never (error)\n"
    "  --explain ID      what a finding means\n"
    "  --list            all there is to find\n"
    "A comment \"; halvekctl: allow HK4002 -- reason\" above a key or a group's header allows a finding.\n"
    "Status: 0 if there is nothing of that level, else 1; 3 for settings that cannot be read.\n";

constexpr std::array severities = {Severity::Error, Severity::Warning, Severity::Note};

/** The least severity that makes the answer no; nothing for never. */
std::optional<Severity> ParseFailOn(const std::string& level) {
    for (const Severity severity : severities) {
        if (level == SeverityName(severity)) {
            return severity;
        }
    }
    if (level != "never") {
        throw UsageError("--fail-on is error, warning, note or never, not " + level);
    }
    return std::nullopt;
}

// --- the catalogue

void AddEntry(companion::Json& json, const CatalogueEntry& entry) {
    json.BeginObject();
    json.Key("id").String(entry.id);
    json.Key("severity").String(SeverityName(entry.severity));
    json.Key("title").String(entry.title);
    json.Key("explanation").String(entry.explanation);
    json.Key("foretells");
    entry.record == nullptr ? json.Null() : json.String(entry.record);
    json.EndObject();
}

void AddEntries(const Invocation& invocation, Answer& answer, std::span<const CatalogueEntry> entries, bool inFull) {
    if (invocation.format == Format::Json) {
        companion::Json json;
        JsonAnswer::Begin(json, "check");
        json.Key("entries").BeginArray();
        for (const CatalogueEntry& entry : entries) {
            AddEntry(json, entry);
        }
        answer.AddLine(json.EndArray().EndObject().Text());
        return;
    }
    for (const CatalogueEntry& entry : entries) {
        std::string severity = SeverityName(entry.severity);
        severity.resize(std::string_view("warning").size(), ' ');
        answer.AddLine(std::string(entry.id) + "  " + severity + "  " + entry.title);
        if (inFull) {
            answer.AddLine("");
            answer.AddLine(entry.explanation);
            if (entry.record != nullptr) {
                answer.AddLine("");
                answer.AddLine("The daemon's record: " + Terminal::Escape(entry.record));
            }
        }
    }
}

ExitStatus Explain(const Invocation& invocation, Answer& answer, std::string id) {
    std::transform(id.begin(), id.end(), id.begin(), [](unsigned char c) { return std::toupper(c); });
    const CatalogueEntry* const entry = Catalogue::Find(id);
    if (entry == nullptr) {
        throw UsageError("there is no finding " + id + ", see check --list");
    }
    AddEntries(invocation, answer, {entry, 1}, true);
    return exitYes;
}

// --- the check

struct Checked {
    StoreLocation location;
    CheckedStore result;
};

/** What the text alone says is the same for everybody: the zone is on the command line, or belongs to this machine. */
Checked CheckOne(Invocation invocation, const std::optional<std::string>& file, bool here) {
    if (file) {
        invocation.settings = *file;
    }
    const auto zoneFrom = here ? StoreLocation::ZoneFrom::Anywhere : StoreLocation::ZoneFrom::CommandLine;
    Checked checked{StoreLocation::Use(invocation, zoneFrom), {}};
    const CheckOptions options{.here = here,
                               .zone = checked.location.GetZone().value_or(here ? "this machine's zone" : ""),
                               .rules = PostingRules::Read(invocation.rules),
                               .questions = {}};
    checked.result = CheckedStore::Check(checked.location.GetPath(), options);
    return checked;
}

size_t CountAll(const std::vector<Checked>& all, Severity severity) {
    size_t count = 0;
    for (const Checked& checked : all) {
        count += checked.result.Count(severity);
    }
    return count;
}

void AddCounts(companion::Json& json, const std::vector<Checked>& all) {
    json.Key("counts").BeginObject();
    for (const Severity severity : severities) {
        json.Key(SeverityName(severity)).Number(static_cast<int64_t>(CountAll(all, severity)));
    }
    size_t suppressed = 0;
    for (const Checked& checked : all) {
        suppressed += checked.result.suppressed;
    }
    json.Key("suppressed").Number(static_cast<int64_t>(suppressed));
    json.EndObject();
}

std::string PathsOf(const std::vector<Checked>& all) {
    std::string paths;
    for (const Checked& checked : all) {
        paths += (paths.empty() ? "" : " ") + checked.location.GetPath();
    }
    return paths;
}

std::string Sha256OfAll(const std::vector<Checked>& all) {
    std::vector<Store::File> files;
    for (const Checked& checked : all) {
        files.insert(files.end(), checked.result.store->files.begin(), checked.result.store->files.end());
    }
    return Sha256Of(files);
}

void AddJson(const std::vector<Checked>& all, bool here, Answer& answer) {
    companion::Json json;
    JsonAnswer::Begin(json, "check");
    json.Key("settings").String(PathsOf(all));
    json.Key("sha256").String(Sha256OfAll(all));
    json.Key("here").Bool(here);
    json.Key("findings").BeginArray();
    for (const Checked& checked : all) {
        for (const Finding& finding : checked.result.examination->Findings()) {
            FindingText::Add(json, finding);
        }
    }
    json.EndArray();
    AddCounts(json, all);
    json.Key("stores").BeginArray();
    for (const Checked& checked : all) {
        json.BeginObject();
        json.Key("settings").String(checked.location.GetPath());
        json.Key("sha256").String(Sha256Of(checked.result.store->files));
        json.EndObject();
    }
    answer.AddLine(json.EndArray().EndObject().Text());
}

void AddText(const std::vector<Checked>& all, Answer& answer) {
    for (const Checked& checked : all) {
        for (const Finding& finding : checked.result.examination->Findings()) {
            FindingText::Add(answer, *checked.result.examination, finding);
        }
    }
}

std::string Plural(size_t count, const char* what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

void TellCounts(const std::vector<Checked>& all) {
    Terminal::Complain(Plural(CountAll(all, Severity::Error), "error") + ", " +
                       Plural(CountAll(all, Severity::Warning), "warning") + ", " +
                       Plural(CountAll(all, Severity::Note), "note"));
}

ExitStatus StatusOf(const std::vector<Checked>& all, std::optional<Severity> failOn) {
    if (!failOn) {
        return exitYes;
    }
    const bool isBad = std::any_of(severities.begin(), severities.end(), [&](Severity severity) {
        return severity >= *failOn && CountAll(all, severity) > 0;
    });
    return isBad ? exitNo : exitYes;
}

ExitStatus RunCheck(const Invocation& invocation, Answer& answer) {
    const OptionReader options(invocation.words,
                               {{"--here", false}, {"--fail-on", true}, {"--explain", true}, {"--list", false}});
    const std::optional<Severity> failOn = ParseFailOn(options.Value("--fail-on").value_or("error"));
    if (options.Has("--list")) {
        AddEntries(invocation, answer, Catalogue::Entries(), false);
        return exitYes;
    }
    if (options.Has("--explain")) {
        return Explain(invocation, answer, *options.Value("--explain"));
    }
    const bool here = options.Has("--here");
    std::vector<Checked> all;
    if (options.Words().empty()) {
        all.push_back(CheckOne(invocation, std::nullopt, here));
    }
    for (const std::string& file : options.Words()) {
        all.push_back(CheckOne(invocation, file, here));
    }
    if (invocation.format == Format::Json) {
        AddJson(all, here, answer);
    } else {
        AddText(all, answer);
    }
    // On a terminal the sum stands below what it is made of.
    answer.Flush();
    TellCounts(all);
    return StatusOf(all, failOn);
}

}  // namespace

const Verb verbCheck{"check", "[FILE...] [--here] [--fail-on LEVEL] | --explain ID | --list",
                     "what is wrong with the settings", help, RunCheck};

}  // namespace kelto::halvek::ctl
