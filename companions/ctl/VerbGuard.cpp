#include "companions/ctl/VerbGuard.h"

#include "companions/ctl/Failure.h"
#include "companions/ctl/JsonAnswer.h"
#include "companions/ctl/OptionReader.h"
#include "companions/ctl/Terminal.h"
#include "companions/ctl/live/DaemonDescriptors.h"
#include "companions/ctl/live/DaemonProcess.h"
#include "companions/ctl/live/HeldPipe.h"
#include "companions/ctl/live/PipeState.h"
#include "companions/ctl/live/RestartLog.h"
#include "companions/ctl/live/ServiceManager.h"

#include <sys/select.h>

#include <algorithm>
#include <cstdlib>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* help =
    "Looks once whether the daemon is about to have no descriptors left. Each reload and each failed write to an\n"
    "output pipe costs it one, and without any it lives on and tells nobody anything. Then it is restarted in good\n"
    "order, with the event pipe held open, so that what is posted meanwhile waits; and it is told which pipe was the\n"
    "cause, and who has it open. That happens at most four times in an hour. A timer of the package asks once a\n"
    "minute.\n"
    "  --percent N  from so many percent of the descriptors on (90)\n"
    "Status: 0 if nothing had to be done, or it was restarted; 1 if it has been four times already; 3 without a\n"
    "daemon, or if it could not be done.\n";

constexpr int32_t defaultPercent = 90;
/** A stop waits for calls and commands: see TimeoutStopSec of the service. */
constexpr std::chrono::seconds longestRestart{150};
constexpr const char* deletedEnd = " (deleted)";

struct Need {
    DaemonProcess daemon;
    DaemonDescriptors descriptors;
    int64_t limit;

    bool IsDue(int32_t percent) const { return descriptors.open * 100 >= limit * percent; }
};

Need Look() {
    const std::optional<DaemonProcess> daemon = DaemonProcess::Find();
    if (!daemon) {
        throw Failure("there is no daemon");
    }
    const std::optional<DaemonDescriptors> descriptors = DaemonDescriptors::Of(daemon->pid);
    if (!descriptors || !daemon->descriptorLimit) {
        throw Failure("the daemon's descriptors are hidden from this user");
    }
    return {*daemon, *descriptors, std::min<int64_t>(*daemon->descriptorLimit, FD_SETSIZE)};
}

std::string Holders(const std::string& path, int daemon) {
    const std::optional<PipeState> pipe = PipeState::Of(path, daemon);
    if (!pipe) {
        return path.ends_with(deletedEnd) ? "" : ", which is not there any more";
    }
    std::string text;
    for (const PipeState::Holder& holder : pipe->readers) {
        text += (text.empty() ? "" : ", ") + std::to_string(holder.pid) + " (" + Terminal::Escape(holder.name) + ")";
    }
    return text.empty() ? ", which nobody has open now" : ", which " + text + " has open and does not read";
}

/** What most descriptors went to. */
std::string Cause(const Need& need) {
    const std::map<std::string, int64_t>& lost = need.descriptors.lostByPipe;
    const auto worst = std::max_element(lost.begin(), lost.end(),
                                        [](const auto& one, const auto& other) { return one.second < other.second; });
    if (worst == lost.end() || worst->second < need.descriptors.eventPipe) {
        return std::to_string(need.descriptors.eventPipe) + " of them for configurations: it was reloaded that often";
    }
    return std::to_string(worst->second) + " of them lost to " + Terminal::Escape(worst->first) +
           Holders(worst->first, need.daemon.pid);
}

void Restart(const Need& need) {
    std::optional<HeldPipe> held;
    if (!need.descriptors.eventPipePath.empty()) {
        held.emplace(need.descriptors.eventPipePath);
    }
    const std::string wrong =
        ServiceManager::Run({"restart", ServiceManager::unit}, ServiceManager::Clock::now() + longestRestart);
    if (!wrong.empty()) {
        throw Failure(wrong);
    }
}

void AddJson(const Need& need, const std::string& did, const std::string& cause, Answer& answer) {
    companion::Json json;
    JsonAnswer::Begin(json, "guard");
    json.Key("pid").Number(need.daemon.pid);
    json.Key("open").Number(need.descriptors.open);
    json.Key("limit").Number(need.limit);
    json.Key("did").String(did);
    json.Key("cause");
    cause.empty() ? json.Null() : json.String(cause);
    answer.AddLine(json.EndObject().Text());
}

ExitStatus RunGuard(const Invocation& invocation, Answer& answer) {
    const OptionReader options(invocation.words, {{"--percent", true}});
    const int32_t percent = options.Number("--percent", defaultPercent, 1, 100);
    const bool isJson = invocation.format == Format::Json;
    if (!options.Words().empty()) {
        throw UsageError("guard takes no word " + options.Words().front());
    }
    answer.Flush();
    const Need need = Look();
    const std::string count = std::to_string(need.descriptors.open) + " of " + std::to_string(need.limit) +
                              " descriptors of the daemon are open";
    if (!need.IsDue(percent)) {
        if (isJson) {
            AddJson(need, "nothing", "", answer);
        }
        return exitYes;
    }
    const std::string cause = Cause(need);
    RestartLog log(RestartLog::defaultFolder);
    if (log.IsExhausted()) {
        isJson ? AddJson(need, "exhausted", cause, answer)
               : answer.AddLine(count + ", " + cause + "; it is not restarted: it was four times in the last hour");
        return exitNo;
    }
    log.Add();
    // Told before it is done: the journal has the reason even if it does not end well.
    if (!isJson) {
        answer.AddLine(count + ", " + cause + "; it is restarted");
        answer.Flush();
    }
    Restart(need);
    if (isJson) {
        AddJson(need, "restarted", cause, answer);
    }
    return exitYes;
}

}  // namespace

const Verb verbGuard{"guard", "[--percent N]", "restarts a daemon that is about to have no descriptors left", help,
                     RunGuard};

}  // namespace kelto::halvek::ctl
