#include "companions/ctl/VerbStatus.h"

#include "companions/common/ClockState.h"
#include "companions/ctl/EventPipeSetting.h"
#include "companions/ctl/Failure.h"
#include "companions/ctl/JsonAnswer.h"
#include "companions/ctl/OptionReader.h"
#include "companions/ctl/Terminal.h"
#include "companions/ctl/live/DaemonDescriptors.h"
#include "companions/ctl/live/DaemonJournal.h"
#include "companions/ctl/live/DaemonProcess.h"
#include "companions/ctl/live/PipeState.h"
#include "companions/ctl/live/Proc.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* help =
    "How the running daemon is: since when and as whom it runs, how many descriptors it has and how many reloads and\n"
    "failed writes they will do for, what waits in the event pipe, who reads the output pipes and how full they are,\n"
    "and what became of its last configuration.\n"
    "Only root and the daemon's user see all of it; everybody else is told what he does not see.\n"
    "Bytes that grow in the event pipe mean that nothing takes events out any more. A pipe that is full costs a\n"
    "descriptor with each event, for good: read it, or remove it.\n"
    "Status: 0, or 3 without a daemon.\n";

constexpr const char* outputFolder = "/run/halvek";
constexpr const char* outboxFolder = "/usr/lib/halvek-outbox/bin";
constexpr const char* refusedRecord = "Error reloading, invalid configuration: ";
constexpr const char* takenRecord = "Configuring...";

/** All that is told, gathered before anything is written. */
struct Status {
    DaemonProcess daemon;
    std::optional<DaemonDescriptors> descriptors;
    std::string eventPipePath;
    std::optional<PipeState> eventPipe;
    /** Nothing if the folder may not be listed. */
    std::optional<std::vector<PipeState>> outputPipes;
    bool hasJournal = false;
    std::optional<DaemonJournal::Record> verdict;
};

std::string Me() {
    const passwd* const entry = getpwuid(geteuid());
    return entry == nullptr ? std::to_string(geteuid()) : entry->pw_name;
}

/** What stands in place of something that this user may not see. */
std::string Hidden(const std::string& who) {
    return "not shown to " + Me() + ", but to " + who;
}

std::string HiddenDaemon(const DaemonProcess& daemon) {
    return Hidden(daemon.uid == 0 ? "root" : "root and " + daemon.user);
}

std::optional<std::vector<PipeState>> OutputPipes(int daemon) {
    const std::optional<std::vector<std::string>> names = Proc::Names(outputFolder);
    if (!names) {
        return std::nullopt;
    }
    std::vector<PipeState> pipes;
    for (const std::string& name : *names) {
        if (std::optional<PipeState> pipe = PipeState::Of(std::string(outputFolder) + "/" + name, daemon)) {
            pipes.push_back(std::move(*pipe));
        }
    }
    return pipes;
}

Status Look(const Invocation& invocation, const StoreLocation& location) {
    const std::optional<DaemonProcess> daemon = DaemonProcess::Find();
    if (!daemon) {
        throw Failure("there is no daemon");
    }
    Status status;
    status.daemon = *daemon;
    status.descriptors = DaemonDescriptors::Of(daemon->pid);
    status.eventPipePath = status.descriptors && !status.descriptors->eventPipePath.empty()
                               ? status.descriptors->eventPipePath
                               : EventPipeSetting::Find(invocation, location);
    status.eventPipe = PipeState::Of(status.eventPipePath, daemon->pid);
    status.outputPipes = OutputPipes(daemon->pid);
    DaemonJournal journal(daemon->pid);
    status.hasJournal = journal.HasRecords();
    if (status.hasJournal) {
        status.verdict = journal.FindLast({refusedRecord, takenRecord});
    }
    return status;
}

bool IsRefusal(const DaemonJournal::Record& record) {
    return record.text.starts_with(refusedRecord);
}

// --- text

void AddRow(Answer& answer, std::string name, const std::string& text) {
    name.resize(14, ' ');
    answer.AddLine(name + text);
}

std::string Duration(int64_t seconds) {
    constexpr int64_t minute = 60;
    constexpr int64_t hour = 60 * minute;
    constexpr int64_t day = 24 * hour;
    std::string text = seconds >= day ? std::to_string(seconds / day) + " d " : "";
    text += seconds >= hour ? std::to_string(seconds % day / hour) + " h " : "";
    text += seconds >= minute ? std::to_string(seconds % hour / minute) + " min " : "";
    return text + std::to_string(seconds % minute) + " s";
}

std::string Since(const DaemonProcess& daemon) {
    constexpr int64_t msPerSec = 1000;
    return companion::ClockState::IsoTime(companion::ClockState::Now() / msPerSec * msPerSec -
                                          daemon.uptimeSec * msPerSec);
}

std::string DescriptorText(const Status& status) {
    if (!status.descriptors || !status.daemon.descriptorLimit) {
        return HiddenDaemon(status.daemon);
    }
    const DaemonDescriptors& counted = *status.descriptors;
    return std::to_string(counted.open) + " open: " + std::to_string(counted.eventPipe) + " of the event pipe, " +
           std::to_string(counted.outputPipes) + " of output pipes, " + std::to_string(counted.bus) + " of the bus, " +
           std::to_string(counted.rest) + " others";
}

std::string LeftText(const Status& status) {
    if (!status.descriptors || !status.daemon.descriptorLimit) {
        return "reloads left: " + HiddenDaemon(status.daemon);
    }
    const int64_t limit = *status.daemon.descriptorLimit;
    return "reloads left " + std::to_string(status.descriptors->Left(limit)) + " of " +
           std::to_string(status.descriptors->Budget(limit)) + ", failed writes included";
}

std::string Fill(const PipeState& pipe) {
    if (!pipe.bytesWaiting) {
        return "bytes waiting " + Hidden("root and " + pipe.owner);
    }
    std::string text = std::to_string(*pipe.bytesWaiting) + " bytes waiting";
    if (pipe.capacity) {
        text += " of " + std::to_string(*pipe.capacity);
    }
    return text + (pipe.IsFull() ? ", FULL" : "");
}

std::string Rights(const PipeState& pipe) {
    return pipe.mode + " " + Terminal::Escape(pipe.owner) + ":" + Terminal::Escape(pipe.group);
}

std::string Readers(const PipeState& pipe) {
    std::string text;
    for (const PipeState::Holder& reader : pipe.readers) {
        text += (text.empty() ? "" : ", ") + std::to_string(reader.pid) + " " + Terminal::Escape(reader.name);
    }
    if (pipe.hasHidden) {
        return text + (text.empty() ? "readers " : "; others ") + Hidden("root");
    }
    return text.empty() ? "no reader" : text;
}

void AddEventPipe(const Status& status, Answer& answer) {
    const std::string path = Terminal::Escape(status.eventPipePath);
    if (!status.eventPipe) {
        AddRow(answer, "event pipe", path + " is not there");
        return;
    }
    AddRow(answer, "event pipe", path + " " + Rights(*status.eventPipe) + ", " + Fill(*status.eventPipe));
    AddRow(answer, "",
           status.daemon.isListening ? "the daemon listens"
                                     : "nothing listens: an empty line was posted, or there is none");
}

void AddOutputPipes(const Status& status, Answer& answer) {
    if (!status.outputPipes) {
        AddRow(answer, "output pipes", Hidden("root and the group halvek-listen"));
        return;
    }
    if (status.outputPipes->empty()) {
        AddRow(answer, "output pipes", "none");
    }
    const char* name = "output pipes";
    for (const PipeState& pipe : *status.outputPipes) {
        AddRow(answer, name,
               Terminal::Escape(pipe.path) + " " + Rights(pipe) + ", " + Fill(pipe) + ", " + Readers(pipe));
        name = "";
    }
    if (status.descriptors) {
        for (const auto& [path, count] : status.descriptors->lostByPipe) {
            AddRow(answer, "", std::to_string(count) + " descriptors lost to " + Terminal::Escape(path));
        }
    }
}

std::string VerdictText(const Status& status) {
    if (status.verdict) {
        const std::string time = companion::ClockState::IsoTime(status.verdict->time);
        return IsRefusal(*status.verdict) ? "REFUSED " + time + ": " + Terminal::Escape(status.verdict->text)
                                          : "taken " + time;
    }
    return status.hasJournal ? "no record of it: the log level may be above Information"
                             : "not known: the journal has nothing of the daemon for " + Me();
}

/** Whether it is installed, and in front of the daemon's programs: that takes a restart, and no reload. */
bool HasOutbox() {
    return access(outboxFolder, F_OK) == 0;
}

bool UsesOutbox(const DaemonProcess& daemon) {
    const std::string path = daemon.environment ? FindVariable(*daemon.environment, "PATH").value_or("") : "";
    return path == outboxFolder || path.starts_with(std::string(outboxFolder) + ":");
}

std::string OutboxText(const DaemonProcess& daemon) {
    if (!daemon.environment) {
        return HiddenDaemon(daemon);
    }
    if (UsesOutbox(daemon)) {
        return HasOutbox() ? "takes uploads and mails" : "is on the PATH, and not installed";
    }
    return HasOutbox() ? "installed, and not on the daemon's PATH: \"systemctl restart halvek\" puts it there" : "none";
}

std::string Variable(const DaemonProcess& daemon, const char* name, const char* absent) {
    return daemon.environment ? FindVariable(*daemon.environment, name).value_or(absent) : "";
}

void AddText(const Status& status, const StoreLocation& location, Answer& answer) {
    const DaemonProcess& daemon = status.daemon;
    AddRow(answer, "pid", std::to_string(daemon.pid) + ", as " + Terminal::Escape(daemon.user));
    AddRow(answer, "since", Since(daemon) + ", " + Duration(daemon.uptimeSec));
    AddRow(answer, "memory", std::to_string(daemon.memoryKib) + " KiB, " + std::to_string(daemon.threads) + " threads");
    AddRow(answer, "descriptors", DescriptorText(status));
    AddRow(answer, "", LeftText(status));
    AddEventPipe(status, answer);
    AddOutputPipes(status, answer);
    AddRow(answer, "last verdict", VerdictText(status));
    AddRow(answer, "settings", Terminal::Escape(location.Describe()));
    AddRow(answer, "PATH",
           daemon.environment ? Terminal::Escape(Variable(daemon, "PATH", "(not set)")) : HiddenDaemon(daemon));
    AddRow(answer, "outbox", OutboxText(daemon));
}

// --- JSON

void AddNumber(companion::Json& json, const char* key, const std::optional<int64_t>& number) {
    json.Key(key);
    number ? json.Number(*number) : json.Null();
}

void AddDescriptors(const Status& status, companion::Json& json) {
    json.Key("descriptors");
    if (!status.descriptors) {
        json.Null();
        return;
    }
    const DaemonDescriptors& counted = *status.descriptors;
    json.BeginObject();
    json.Key("open").Number(counted.open);
    json.Key("event_pipe").Number(counted.eventPipe);
    json.Key("output_pipes").Number(counted.outputPipes);
    json.Key("bus").Number(counted.bus);
    json.Key("others").Number(counted.rest);
    AddNumber(json, "limit", status.daemon.descriptorLimit);
    json.Key("lost").BeginObject();
    for (const auto& [path, count] : counted.lostByPipe) {
        json.Key(path).Number(count);
    }
    json.EndObject().EndObject();
}

void AddPipe(const PipeState& pipe, companion::Json& json) {
    json.BeginObject();
    json.Key("path").String(pipe.path);
    json.Key("mode").String(pipe.mode);
    json.Key("owner").String(pipe.owner);
    json.Key("group").String(pipe.group);
    AddNumber(json, "bytes_waiting", pipe.bytesWaiting);
    AddNumber(json, "capacity", pipe.capacity);
    json.Key("full");
    pipe.bytesWaiting ? json.Bool(pipe.IsFull()) : json.Null();
    json.Key("readers").BeginArray();
    for (const PipeState::Holder& reader : pipe.readers) {
        json.BeginObject().Key("pid").Number(reader.pid).Key("comm").String(reader.name).EndObject();
    }
    json.EndArray();
    json.Key("readers_hidden").Bool(pipe.hasHidden);
    json.EndObject();
}

void AddJsonPipes(const Status& status, companion::Json& json) {
    json.Key("event_pipe");
    status.eventPipe ? AddPipe(*status.eventPipe, json) : static_cast<void>(json.Null());
    json.Key("event_pipe_path").String(status.eventPipePath);
    json.Key("listening").Bool(status.daemon.isListening);
    json.Key("output_pipes");
    if (!status.outputPipes) {
        json.Null();
        return;
    }
    json.BeginArray();
    for (const PipeState& pipe : *status.outputPipes) {
        AddPipe(pipe, json);
    }
    json.EndArray();
}

void AddVerdict(const Status& status, companion::Json& json) {
    json.Key("last_verdict");
    if (!status.verdict) {
        json.Null();
        return;
    }
    json.BeginObject();
    json.Key("taken").Bool(!IsRefusal(*status.verdict));
    json.Key("time").String(companion::ClockState::IsoTime(status.verdict->time));
    json.Key("text").String(status.verdict->text);
    json.EndObject();
}

void AddHidden(const Status& status, companion::Json& json) {
    json.Key("not_shown").BeginArray();
    if (!status.descriptors) {
        json.String("descriptors").String("reloads_left");
    }
    if (!status.daemon.environment) {
        json.String("path");
    }
    if (status.eventPipe && !status.eventPipe->bytesWaiting) {
        json.String("event_pipe.bytes_waiting");
    }
    if (!status.outputPipes) {
        json.String("output_pipes");
    }
    if (!status.hasJournal) {
        json.String("last_verdict");
    }
    json.EndArray();
}

void AddJson(const Status& status, const StoreLocation& location, Answer& answer) {
    const DaemonProcess& daemon = status.daemon;
    companion::Json json;
    JsonAnswer::Begin(json, "status", location);
    json.Key("pid").Number(daemon.pid);
    json.Key("user").String(daemon.user);
    json.Key("since").String(Since(daemon));
    json.Key("uptime_s").Number(daemon.uptimeSec);
    json.Key("memory_kib").Number(daemon.memoryKib);
    json.Key("threads").Number(daemon.threads);
    AddDescriptors(status, json);
    const bool isKnown = status.descriptors && daemon.descriptorLimit;
    AddNumber(json, "budget",
              isKnown ? std::optional(status.descriptors->Budget(*daemon.descriptorLimit)) : std::nullopt);
    AddNumber(json, "reloads_left",
              isKnown ? std::optional(status.descriptors->Left(*daemon.descriptorLimit)) : std::nullopt);
    AddJsonPipes(status, json);
    AddVerdict(status, json);
    json.Key("path");
    daemon.environment ? json.String(Variable(daemon, "PATH", "")) : json.Null();
    json.Key("outbox").BeginObject().Key("installed").Bool(HasOutbox()).Key("in_front");
    daemon.environment ? json.Bool(UsesOutbox(daemon)) : json.Null();
    json.EndObject();
    AddHidden(status, json);
    answer.AddLine(json.EndObject().Text());
}

ExitStatus RunStatus(const Invocation& invocation, Answer& answer) {
    const OptionReader options(invocation.words, {});
    if (!options.Words().empty()) {
        throw UsageError("status takes no word " + options.Words().front());
    }
    const StoreLocation location = StoreLocation::Use(invocation);
    const Status status = Look(invocation, location);
    if (invocation.format == Format::Json) {
        AddJson(status, location, answer);
    } else {
        AddText(status, location, answer);
    }
    return exitYes;
}

}  // namespace

const Verb verbStatus{"status", "", "how the running daemon is", help, RunStatus};

}  // namespace kelto::halvek::ctl
