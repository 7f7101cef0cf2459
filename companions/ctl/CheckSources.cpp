#include "companions/ctl/Checks.h"
#include "companions/ctl/Examination.h"
#include "companions/ctl/KeyCheck.h"
#include "companions/ctl/KnownNames.h"
#include "companions/ctl/Nearest.h"
#include "companions/ctl/ValueForm.h"
#include "env/SettingsReader.h"
#include "kelto/core/LogLevel.h"
#include "kelto/osa/Exception.h"
#include "monitor/EventMonitor.h"
#include "source/EventServerSource.h"

#include <algorithm>
#include <list>
#include <map>
#include <set>
#include <string>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* leftOut = "\tError LoadSources: ";
constexpr const char* noServer = "\tError LoadServers: ";
constexpr const char* logGroup = "Applications/halvek";
const std::string serverGroup = EventMonitor::serverGroup;

/** What the strict reader says of a type that is missing. */
std::string MissingType(const Examination& examination, const std::string& group) {
    try {
        SettingsReader::Read(examination.ini, group, EventMonitor::typeKeys.Text("Type"));
    } catch (const osa::Exception& exception) {
        return exception.what();
    }
    return "";
}

// --- the log

void CheckLogLevels(Examination& examination) {
    static const std::vector<std::string> loggers = {
        "halvek",       "ParkEventSource", "AnalyticsEventSource", "MsgBusEventSource", "kelto.core", "kelto.inet",
        "kelto.msgbus", "kelto.osa",       "kelto.settings"};
    const std::string prefix = "LogLevel.";
    for (const auto& [key, value] : examination.ini.FindGroup(logGroup)) {
        const bool ofOne = key.starts_with(prefix);
        if (key != "LogLevel" && !ofOne) {
            continue;
        }
        if (!core::ParseLogLevel(value)) {
            Finding& finding = examination.AtValue("HK1013", logGroup, key,
                                                   Quoted(value) +
                                                       " is no level: the default holds; allowed are Trace, "
                                                       "Debug, Information, Warning and Error");
            finding.fix = Nearest::Find(ValueForm::Bare(value), {"Trace", "Debug", "Information", "Warning", "Error"});
            finding.foretells = std::string(key).append(" names no log level: ").append(value);
        }
        const std::string logger = ofOne ? key.substr(prefix.size()) : "";
        if (ofOne && std::find(loggers.begin(), loggers.end(), logger) == loggers.end()) {
            const std::optional<std::string> nearest = Nearest::Find(logger, loggers);
            Finding& finding = examination.AtKey("HK1014", logGroup, key, "the daemon has no logger " + Quoted(logger));
            if (nearest) {
                finding.text += "; did you mean " + *nearest + "?";
                finding.fix = prefix + *nearest;
            }
        }
    }
}

// --- the event server

void CheckPath(Examination& examination, const std::string& group) {
    const std::string* const path = examination.Value(group, "Path");
    if (path == nullptr) {
        return;
    }
    if (path->empty()) {
        examination.AtValue("HK2017", group, "Path", "an empty path: there is no event pipe, so nobody can post")
            .foretells = "Thread EventServerSource ended by an exception: Unable to open FIFO for reading";
    } else if (path->front() != '/') {
        Finding& finding = examination.AtValue(
            "HK2017", group, "Path", Quoted(*path) + " is looked up from the folder that the daemon was started in");
        finding.severity = Severity::Warning;
        finding.fix = "/" + *path;
    }
}

void CheckServer(Examination& examination) {
    const std::string* const type = examination.Value(serverGroup, "Type");
    if (type == nullptr) {
        const bool isThere = examination.positions.Find(serverGroup).has_value();
        Finding& finding = examination.AtGroup(isThere ? "HK2013" : "HK2012", serverGroup,
                                               isThere ? "the event server has no Type: there is no event pipe"
                                                       : "there is no group [Applications/halvek/Server]: nobody can "
                                                         "post events");
        finding.fix = isThere ? "Type=Pipe" : "[Applications/halvek/Server]\nType=Pipe";
        finding.foretells = noServer + MissingType(examination, serverGroup);
    } else if (*type != EventMonitor::serverType) {
        const bool isCase = Nearest::IsEqualButForCase(*type, EventMonitor::serverType);
        Finding& finding = examination.AtValue(isCase ? "HK1012" : "HK2013", serverGroup, "Type",
                                               Quoted(*type) +
                                                   " is no type of event server, and there is no event pipe; "
                                                   "allowed is Pipe");
        finding.fix = EventMonitor::serverType;
        finding.foretells = std::string(noServer) + "We currently only support pipe servers";
    }
    CheckPath(examination, serverGroup + "/Pipe");
}

// --- sources

std::string PathOf(const Examination& examination, const std::string& group) {
    const std::string* const path = examination.Value(group, "Path");
    return path == nullptr ? source::EventServerSource::keys.Text("Path").absent : *path;
}

bool IsSamePath(std::string one, std::string other) {
    for (std::string* path : {&one, &other}) {
        if (path->starts_with("/var/run/")) {
            path->erase(0, std::string_view("/var").size());
        }
    }
    return one == other;
}

void CheckSecondServer(Examination& examination, const std::string& group) {
    const std::string below = group + "/server";
    CheckPath(examination, below);
    const std::string* const type = examination.Value(serverGroup, "Type");
    const bool hasFirst = type != nullptr && *type == EventMonitor::serverType;
    if (hasFirst && IsSamePath(PathOf(examination, below), PathOf(examination, serverGroup + "/Pipe"))) {
        const bool hasPath = examination.Value(below, "Path") != nullptr;
        examination.AtValue("HK2011", hasPath ? below : group, hasPath ? "Path" : "Type",
                            "two servers read the event pipe " + PathOf(examination, below) +
                                ": each posted event goes to one of them by chance");
    }
}

void ReportUnknownType(Examination& examination, const std::string& group, const std::string& type) {
    const std::vector<std::string> known = KnownNames::SourceTypeNames();
    const std::string foretold = "\tUnknown EventSource: " + type;
    const auto sameWord = std::find_if(known.begin(), known.end(),
                                       [&](const std::string& name) { return Nearest::IsEqualButForCase(name, type); });
    if (sameWord != known.end() && *sameWord != "System") {
        Finding& finding = examination.AtValue(
            "HK1012", group, "Type",
            Quoted(type) + " is taken for a type of posted events; did you mean " + *sameWord + "?");
        finding.fix = *sameWord;
        finding.foretells = foretold;
        return;
    }
    if (type == "MotionDetection") {
        examination
            .AtValue("HK3009", group, "Type",
                     "events of MotionDetection that name a region go to sources of the region's type, not to this one")
            .foretells = foretold;
        return;
    }
    const std::string bare = ValueForm::Bare(type);
    const bool isDressed = bare != type && std::find(known.begin(), known.end(), bare) != known.end();
    const std::optional<std::string> nearest = isDressed ? std::optional(bare) : Nearest::Find(bare, known);
    Finding& finding =
        examination.AtValue("HK2008", group, "Type",
                            Quoted(type) + " is not built in: this stands for posted events of that type" +
                                (nearest ? "; did you mean " + *nearest + "?" : ""));
    finding.fix = nearest;
    finding.severity = nearest ? Severity::Warning : Severity::Note;
    finding.foretells = foretold;
}

void ReportOutOfRange(Examination& examination, const std::string& group, const IntegerKey& key, int32_t number) {
    const std::string name = key.name;
    const std::string value = std::to_string(number);
    if (name == "Interval.sec" && number == 0) {
        examination.AtValue("HK2001", group, name, "with 0 the timer fires without a pause; allowed is 1 to 2147483")
            .fix = "1";
    } else if (name == "Interval.sec") {
        examination.AtValue("HK2002", group, name, value + " s become 25 days; allowed is 1 to 2147483");
    } else if (name == "DwellTime.sec") {
        examination.AtValue("HK2005", group, name,
                            value +
                                " s count as 136 years: the source never fires; allowed is 0 "
                                "and more");
    } else {
        examination.AtValue("HK2015", group, name,
                            "there is no input " + value +
                                ": no event ever comes; allowed is 0 "
                                "and more");
    }
}

void CheckKeys(Examination& examination, const std::string& group, const std::string& type) {
    KeyCheck check(examination, {"HK2004", leftOut},
                   [&](const std::string& place, const IntegerKey& key, int32_t number) {
                       ReportOutOfRange(examination, place, key, number);
                   });
    const std::string below = group + "/" + type;
    for (const SettingsKey& key : KnownNames::KeysOfSource(type)) {
        check.Check(below, key);
    }
}

void CheckType(Examination& examination, const std::string& group, const std::string& type) {
    const std::vector<std::string> known = KnownNames::SourceTypeNames();
    if (std::find(known.begin(), known.end(), type) == known.end()) {
        ReportUnknownType(examination, group, type);
    } else if (type == "Analytics" || type == "MsgBus") {
        examination.AtValue("HK2009", group, "Type",
                            "alerts go out twice with this source; have the handlers name Applications/halvek/MsgBus, "
                            "which is always there");
    } else if (type == "System") {
        examination.AtValue("HK2016", group, "Type", "this stands for posted events of type System");
    } else if (type == "server") {
        CheckSecondServer(examination, group);
    } else if (type == "Alarm" && examination.Value(group + "/Alarm", "BankName") == nullptr) {
        examination.AtGroup("HK2014", group,
                            "without BankName the camera has to answer when this is loaded, or it is left out");
    }
}

void CheckSource(Examination& examination, const std::string& group) {
    const std::string* const type = examination.Value(group, "Type");
    if (type == nullptr) {
        Finding& finding =
            examination.AtGroup("HK2007", group,
                                "[" + group +
                                    "] has no Type: it is left out; allowed are Timer, Alarm, Park, Analytics, or the "
                                    "type of posted events");
        finding.foretells = leftOut + MissingType(examination, group);
        return;
    }
    CheckType(examination, group, *type);
    CheckKeys(examination, group, *type);
}

/** The names that are found twice. */
void CheckNameClashes(Examination& examination, const std::list<std::string>& groups, const char* what) {
    std::set<std::string> seen;
    for (const std::string& group : groups) {
        if (!seen.insert(group).second) {
            examination.AtGroup("HK2006", group,
                                "another name is [" + group + "] followed by a character before \"/\": " + what);
        }
    }
}

/** Types that differ in the number at their end only. */
void CheckNumberedTypes(Examination& examination, const std::list<std::string>& groups) {
    constexpr size_t few = 3;
    std::map<std::string, std::set<std::string>> numbered;
    for (const std::string& group : groups) {
        const std::string* const type = examination.Value(group, "Type");
        const size_t end = type == nullptr ? 0 : type->find_last_not_of("0123456789") + 1;
        if (type == nullptr || end == 0 || end == type->size()) {
            continue;
        }
        std::set<std::string>& ofOneKind = numbered[type->substr(0, end)];
        ofOneKind.insert(*type);
        if (ofOneKind.size() == few) {
            examination.AtValue(
                "HK7002", group, "Type",
                "several types differ in a number only; the daemon remembers every number that is posted");
        }
    }
}

}  // namespace

void CheckSources(Examination& examination) {
    CheckLogLevels(examination);
    CheckServer(examination);
    std::list<std::string> groups;
    EventMonitor::EnumerateGroups(examination.ini, EventMonitor::sourcePrefix, groups);
    CheckNameClashes(examination, groups, "the source is made twice");
    std::list<std::string> handlers;
    EventMonitor::EnumerateGroups(examination.ini, EventMonitor::handlerPrefix, handlers);
    CheckNameClashes(examination, handlers, "the handler acts twice on each event");
    groups.unique();
    std::set<std::string> seen;
    for (const std::string& group : groups) {
        if (seen.insert(group).second) {
            CheckSource(examination, group);
        }
    }
    CheckNumberedTypes(examination, groups);
}

}  // namespace kelto::halvek::ctl
